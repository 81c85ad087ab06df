// What the parts of the host layer do in the child of a fork. One handler, in threads.cpp, calls
// them.
#ifndef QUORVEL_HOST_FORK_CHILD_H_
#define QUORVEL_HOST_FORK_CHILD_H_

// From now on local time is computed without the C library's lock, which a thread of the parent may
// have held.
void ForgetZoneLockInChild();

// The parent reports the lines that its log discarded; the child does not.
void ForgetDiscardedLinesInChild();

namespace unwindstack {

// Begins a new walk where a thread of the parent was in the middle of one.
void StartWalksAnewInChild();

}  // namespace unwindstack

#endif  // QUORVEL_HOST_FORK_CHILD_H_
