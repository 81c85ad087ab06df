// The child of a fork has none of the parent's other threads: it has no monitor, and locks that
// they held stay locked. So all that the library owns is reset there, once:
//
//     parent                          child
//     ------                          -----
//     prepare handler: sets the mark
//     fork ------------------------>  (child handlers that the host registered before ours: one
//                                      that calls quorvel_init resets everything and clears the
//                                      mark)
//                                     our child handler: if the mark is set, resets everything and
//                                     clears it
//
// A child made without fork handlers (a bare clone) is reset by its own first quorvel_init.
#ifndef QUORVEL_CORE_FORK_CHILD_H_
#define QUORVEL_CORE_FORK_CHILD_H_

#include <sys/types.h>

#include <cstdint>

// Tells a process from its children: by the id also one that was made without fork handlers, by
// the resets also one that has the same id in another pid namespace.
struct QuorvelProcess {
  pid_t pid;
  uint32_t resets;

  bool operator==(const QuorvelProcess& other) const {
    return pid == other.pid && resets == other.resets;
  }
};
QuorvelProcess QuorvelCurrentProcess();

// Notes that the calling process has created its monitor thread.
void QuorvelNoteMonitor();

// Whether the calling process has a monitor thread: not that of a process it was forked from.
bool QuorvelHasMonitor();

// quorvel_init calls it first, with no lock held. The first call registers the fork handlers, so
// that they are there before any lock that a fork could leave locked. A call in a new process whose
// child handler has not run yet, or never will, resets it. Every call must pass the same reset.
void QuorvelEnterProcess(void (*reset)());

#endif  // QUORVEL_CORE_FORK_CHILD_H_
