// The kernel stacks of an incident.
#ifndef QUORVEL_LOG_KERNEL_BACKTRACE_H_
#define QUORVEL_LOG_KERNEL_BACKTRACE_H_

// Writes the kernel stack of every thread of the process into the incident log, one section and one
// write a thread: tid first, then the others in ascending order, without the calling thread. The
// stack of tid also goes to the Android log. The process is dumpable meanwhile. Monitor thread
// only, between the callback and the user stacks.
void QuorvelKernBacktrace(int tid);

// In the child of a fork: puts back what its parent has set only for the time of its dump.
void QuorvelResetDumpableAfterFork();

#endif  // QUORVEL_LOG_KERNEL_BACKTRACE_H_
