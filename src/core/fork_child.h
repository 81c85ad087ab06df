// The child of a fork has none of the parent's other threads: no monitor, and locks that nobody
// will ever unlock. So all that the library owns is reset there, once:
//
//     parent                          child
//     ------                          -----
//     prepare handler: sets the mark
//     fork ------------------------>  (handlers of the host's that came before ours: one that calls
//                                      quorvel_init resets everything and clears the mark)
//                                     child handler: resets everything if the mark is set, clears
//                                     it
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

// To be called first in quorvel_init, with no lock held: the first call registers the handlers,
// before any lock that a fork could leave locked; a call in a new process that was not reset resets
// it. Every call must pass the same reset.
void QuorvelEnterProcess(void (*reset)());

#endif  // QUORVEL_CORE_FORK_CHILD_H_
