#include "log/incident_header.h"

#include <android-base/file.h>
#include <android-base/properties.h>
#include <android/log.h>
#include <quorvel/quorvel.h>
#include <stdlib.h>
#include <time.h>

#include <string>

#include "log/log_tag.h"

namespace {

struct FingerprintPart {
  const char* property;
  const char* separator;
};

constexpr FingerprintPart kFingerprintParts[] = {
    {"ro.product.brand", "/"},  {"ro.product.name", "/"},
    {"ro.product.device", ":"}, {"ro.build.version.release", "/"},
    {"ro.build.id", "/"},       {"ro.build.version.incremental", ":"},
    {"ro.build.type", "/"},     {"ro.build.tags", ""},
};

std::string BuildFingerprint() {
  std::string fingerprint = android::base::GetProperty("ro.build.fingerprint", "");
  if (!fingerprint.empty()) return fingerprint;
  for (const FingerprintPart& part : kFingerprintParts) {
    fingerprint += android::base::GetProperty(part.property, "unknown");
    fingerprint += part.separator;
  }
  return fingerprint;
}

// The text of ctime, newline included; empty if the time has none. ctime itself would use a buffer
// that it shares with all threads of the host.
struct LocalTimeText {
  char text[64];  // ctime_r writes at most 26
  explicit LocalTimeText(time_t seconds) {
    if (ctime_r(&seconds, text) == nullptr) text[0] = '\0';
  }
};

void PrintProcess() {
  if (const char* program = getprogname()) {
    QuorvelPrintLine(">>> %s <<<\n", program);
    return;
  }
  __android_log_print(ANDROID_LOG_ERROR, kLogTag, "%s get_watched_process_info fail\n",
                      "QuorvelInsertLogTitle");
  const std::string path = android::base::GetExecutablePath();
  if (!path.empty()) QuorvelPrintLine(">>> exe:%s <<<\n", path.c_str());
}

}  // namespace

void QuorvelInsertLogTitle(int tid, const char* name, long start) {
  QuorvelPrintLine("%s", LocalTimeText(time(nullptr)).text);
  QuorvelPrintLine("timeout tid: %d\n", tid);
  if (name != nullptr) QuorvelPrintLine("timeout function: %s\n", name);
  QuorvelPrintLine("time start: %s", LocalTimeText(start).text);
  QuorvelPrintLine("Build fingerprint: %s\n", BuildFingerprint().c_str());
  PrintProcess();
}
