// The user-space stacks of an incident.
#ifndef QUORVEL_LOG_USER_BACKTRACE_H_
#define QUORVEL_LOG_USER_BACKTRACE_H_

// Unwinds every thread of the process except the calling one and writes one section a thread
// straight to the incident's file: tid first, then the others in ascending order. Every line also
// goes to the Android log. Does nothing when no incident file is open. Each thread is stopped only
// while its own stack is read; one that does not answer costs five seconds. Monitor thread only.
void QuorvelUserBacktrace(int tid);

#endif  // QUORVEL_LOG_USER_BACKTRACE_H_
