// Recovery records, as the property store may hold them, and any program's name for one.

#include "core/recovery_limit.h"
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input{data, size};
  const int64_t now = input.Take<uint32_t>();
  const std::string value = input.TakeText(), program = input.TakeText();
  const QuorvelRecoveryRecord record = QuorvelParseRecoveryRecord(value.c_str());
  if (value.find(',') == value.npos) CLAIM(record.count == 0 && record.time == 0);

  const bool allowed = QuorvelRecoveryAllowed(record, now);
  if (record.count < 5) CLAIM(allowed == (record.count >= 0));
  if (record.count >= 5 && record.time > now) CLAIM(!allowed);
  if (record.count >= 5 && record.time >= 0 && record.time < now - 1800) CLAIM(allowed);

  const std::string written = std::to_string(record.count) + "," + std::to_string(record.time);
  const QuorvelRecoveryRecord again = QuorvelParseRecoveryRecord(written.c_str());
  CLAIM(again.count == record.count && again.time == record.time);

  const std::string name = QuorvelRecoveryRecordName(true, program.c_str());
  CLAIM(QuorvelElfHash(program.c_str()) < 1u << 28 && name.size() <= 31);
  CLAIM(name.find_first_not_of("0123456789", strlen("odm.quorvel.rec.")) == name.npos);
  return 0;
}
