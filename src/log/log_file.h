// The incident's log file: one new file an incident, in the reliability log directory that every
// process with this library shares. Opening runs under the directory's lock file and first removes
// the oldest files, so that the directory holds at most ten. The directory itself is never created.
//
// Monitor thread only.
#ifndef QUORVEL_LOG_LOG_FILE_H_
#define QUORVEL_LOG_LOG_FILE_H_

#include <dirent.h>

#include <string>

// Begins an incident: records the flags, clears the line buffer and, under QUORVEL_FLAG_LOG, opens
// a new log file in the vendor's or the system's directory. Without a file, for whatever reason,
// the incident goes to the Android log alone. No incident may be open.
void QuorvelInitLog(int flags, bool isVendor);

// Full path of the log file that this process opened last; empty when it has opened none.
const std::string& QuorvelLastLogPath();

// What the clean-up counts (1) and what it leaves alone (0): regular files of any name that does
// not begin with a dot.
int LogFilter(const dirent* entry);

// The clean-up's order: names by byte value, which for log files is by age.
int LogCompar(const dirent** a, const dirent** b);

#endif  // QUORVEL_LOG_LOG_FILE_H_
