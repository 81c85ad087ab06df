// The kernel stacks of an incident.
#ifndef QUORVEL_LOG_KERNEL_BACKTRACE_H_
#define QUORVEL_LOG_KERNEL_BACKTRACE_H_

// Writes the kernel stack of every thread of the process except the calling one into the incident
// log, one section and one write a thread: tid first, then the others in ascending order. The stack
// of tid also goes to the Android log. The process is dumpable during the call. Monitor thread
// only, after the callback and before the user stacks.
void QuorvelKernBacktrace(int tid);

// In the child of a fork: makes it undumpable again if the parent was dumpable only for a dump.
void QuorvelResetDumpableInChild();

#endif  // QUORVEL_LOG_KERNEL_BACKTRACE_H_
