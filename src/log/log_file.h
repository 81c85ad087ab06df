// The log file: every incident gets a new one in the reliability log directory, which all processes
// with this library share. It is opened under the directory's lock file, after the oldest files
// have been removed, so that the directory holds at most ten. The directory itself is never
// created.
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

// The full path of the log file that this process opened last; empty if it has opened none.
const std::string& QuorvelLastLogPath();

// In the child of a fork, which has opened no log file yet: empties the path. Leaks the parent's.
void QuorvelForgetLogPathInChild();

// Whether the clean-up counts an entry: 1 for regular files of any name that does not begin with a
// dot, 0 for all others.
int LogFilter(const dirent* entry);

// The clean-up's order: by the bytes of the names, which for log files is by age.
int LogCompar(const dirent** a, const dirent** b);

#endif  // QUORVEL_LOG_LOG_FILE_H_
