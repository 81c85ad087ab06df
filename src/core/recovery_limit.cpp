#include "core/recovery_limit.h"

#include <android/log.h>
#include <stdlib.h>
#include <string.h>
#include <sys/system_properties.h>
#include <time.h>
#include <unistd.h>

#include <limits>

#include "base/bounds_checked.h"
#include "log/log_tag.h"

namespace {

constexpr int32_t kFreeExits = 5;
constexpr int64_t kPauseSeconds = 1800;
constexpr size_t kMaxRecordName = 31;

struct PropertyValue {
  char text[PROP_VALUE_MAX];
  explicit PropertyValue(const char* name) {
    memset_s(text, sizeof(text), 0, sizeof(text));
    __system_property_get(name, text);
  }
};

bool SwitchedOff(bool is_vendor) {
  const PropertyValue value(is_vendor ? "ro.vendor.quorvel.rec" : "ro.quorvel.rec");
  return strcmp(value.text, "false") == 0;
}

const char* ProgramName() {
  const char* program = getprogname();
  if (program != nullptr) program = basename(program);
  return program != nullptr && program[0] != '\0' ? program : "UNKNOWN";
}

[[noreturn]] void ExitRecorded(const std::string& name, int32_t count) {
  // The largest count is not counted up: it would become negative, which forbids every exit.
  const int32_t next = count < std::numeric_limits<int32_t>::max() ? count + 1 : count;
  const std::string value = std::to_string(next) + "," + std::to_string(time(nullptr));
  __system_property_set(name.c_str(), value.c_str());
  __android_log_print(ANDROID_LOG_ERROR, kLogTag, "exit process from quorvel");
  _exit(1);
}

}  // namespace

void QuorvelSayRecoveryNotSet() {
  __android_log_print(ANDROID_LOG_ERROR, kLogTag, "not set recovery flag of quorvel");
}

void QuorvelRecover(bool is_vendor) {
  if (SwitchedOff(is_vendor)) {
    QuorvelSayRecoveryNotSet();
    return;
  }
  const std::string name = QuorvelRecoveryRecordName(is_vendor, ProgramName());
  const QuorvelRecoveryRecord record = QuorvelParseRecoveryRecord(PropertyValue(name.c_str()).text);
  __android_log_print(ANDROID_LOG_INFO, kLogTag,
                      "quorvel recovery limit count:%d last happen time:%ld", record.count,
                      static_cast<long>(record.time));
  if (!QuorvelRecoveryAllowed(record, time(nullptr))) {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                        "Skip exit, because it has recovery more than %d times\n", kFreeExits);
    return;
  }
  ExitRecorded(name, record.count);
}

uint32_t QuorvelElfHash(const char* name) {
  uint32_t h = 0;
  for (; *name != '\0'; ++name) {
    h = (h << 4) + static_cast<unsigned char>(*name);
    const uint32_t g = h & 0xF0000000u;
    h ^= g >> 24;
    h &= ~g;
  }
  return h;
}

std::string QuorvelRecoveryRecordName(bool is_vendor, const char* program) {
  std::string name = is_vendor ? "odm.quorvel.rec." : "quorvel.s.rec.";
  name += std::to_string(QuorvelElfHash(program));
  if (name.size() > kMaxRecordName) name.resize(kMaxRecordName);
  return name;
}

QuorvelRecoveryRecord QuorvelParseRecoveryRecord(const char* value) {
  const char* comma = strchr(value, ',');
  if (comma == nullptr) return {0, 0};
  const std::string count(value, comma);
  return {atoi(count.c_str()), atol(comma + 1)};
}

bool QuorvelRecoveryAllowed(const QuorvelRecoveryRecord& record, int64_t now) {
  if (record.count < 0) return false;
  if (record.count < kFreeExits) return true;
  int64_t since;
  const bool overflow = __builtin_sub_overflow(now, record.time, &since);
  // The difference overflows only where the recorded time lies far below zero: long ago.
  return overflow || since >= kPauseSeconds;
}
