// The recovery limit: the library may end a program five times without pause, and from then on once
// every half hour. The count is kept outside the process, in a system property named after the
// program.
#ifndef QUORVEL_CORE_RECOVERY_LIMIT_H_
#define QUORVEL_CORE_RECOVERY_LIMIT_H_

#include <cstdint>
#include <string>

// Counts one more exit in the recovery record and ends the process with _exit(1). Returns, after
// logging why, where the recovery switch or the limit forbids that. Monitor thread only.
void QuorvelRecover(bool is_vendor);

// Logs that the process goes on: its watch does not ask for the exit, or the switch is off.
void QuorvelSayRecoveryNotSet();

// The steps of QuorvelRecover. Any thread; they keep no state.

struct QuorvelRecoveryRecord {
  int32_t count;  // how often the program has been ended
  int64_t time;   // wall-clock second of the last time
};

// The hash of a symbol name in the System V ABI (its chapter on the hash table); below 2^28.
uint32_t QuorvelElfHash(const char* name);

// The property that holds the recovery record of the program of this name.
std::string QuorvelRecoveryRecordName(bool is_vendor, const char* program);

// Reads "count,time". Without a comma both are 0; a malformed number is 0; text after one is
// ignored.
QuorvelRecoveryRecord QuorvelParseRecoveryRecord(const char* value);

// Whether the record allows one more exit at the wall-clock second now.
bool QuorvelRecoveryAllowed(const QuorvelRecoveryRecord& record, int64_t now);

#endif  // QUORVEL_CORE_RECOVERY_LIMIT_H_
