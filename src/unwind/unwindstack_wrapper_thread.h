// The entry through which an unwinding thread and the signal handler on its target thread exchange
// registers: one for each (process id, thread id), in one process-wide list. An exchange counts the
// entry's wait_value_ up:
//
//     unwinding thread                       target thread, in the handler of the signal
//     ----------------                       -------------------------------------------
//     get(pid, tid, true), lock the entry
//     wait_value_ = 0   (Idle)
//     send the signal ---------------------> get(pid, tid, false)
//     wait(1)                                copy_context
//       <----------------------------------- wake: 1  (ContextSaved)
//     read the stack                         wait(2), stopped
//     wake: 2           (StackRead) -------> return from the wait
//     wait(3)                                wake: 3  (Leaving)
//       <-----------------------------------
//     remove                                 return to the interrupted code
//
// Every wait is for exactly one value and lasts five seconds at most, on the monotonic clock, so
// neither side can hold up the other for longer. The handler never releases the reference that its
// get returned: an entry that a handler has found stays for good and serves every later exchange
// with that thread, so nothing is freed under a handler that comes late. Such a handler waits its
// five seconds and returns; what it counted up is set back by the next exchange.
//
// Locks: list_mutex_ guards the list and the reference counts and is held only inside get and
// remove. The unwinding thread holds entry_mutex_ for the whole exchange, never together with
// list_mutex_; the handler does not lock it. wait_mutex_ is held only inside wait and wake.
#ifndef QUORVEL_UNWIND_UNWINDSTACK_WRAPPER_THREAD_H_
#define QUORVEL_UNWIND_UNWINDSTACK_WRAPPER_THREAD_H_

#include <pthread.h>
#include <quorvel/quorvel.h>
#include <ucontext.h>

#include <atomic>
#include <cstdint>

enum RendezvousValue : int32_t {
  kRendezvousIdle = 0,
  kRendezvousContextSaved = 1,
  kRendezvousStackRead = 2,
  kRendezvousLeaving = 3,
};

class unwindstack_wrapper_thread {
 public:
  // An entry with one reference, at the head of the list. The caller holds list_mutex_; only get
  // creates entries.
  QUORVEL_EXPORT unwindstack_wrapper_thread(int pid, int tid);

  // Unlinks the entry from the list. The caller holds list_mutex_.
  QUORVEL_EXPORT ~unwindstack_wrapper_thread();

  unwindstack_wrapper_thread(const unwindstack_wrapper_thread&) = delete;
  unwindstack_wrapper_thread& operator=(const unwindstack_wrapper_thread&) = delete;

  // Returns the entry of the pair, with one more reference. If there is none: a new one if create
  // is set, else null; null also when memory is exhausted. Without create it allocates nothing and
  // may run in the signal handler.
  QUORVEL_EXPORT static unwindstack_wrapper_thread* get(int pid, int tid, bool create);

  // Unlocks the entry's entry_mutex_, which the caller holds, and releases one reference; the last
  // one frees the entry.
  QUORVEL_EXPORT static void remove(unwindstack_wrapper_thread* entry);

  // Waits at most five seconds until wait_value_ equals value. False when it did not; a larger
  // value does not count. May run in the signal handler.
  QUORVEL_EXPORT bool wait(int value);

  // Adds one to wait_value_ and wakes the side that waits for it. May run in the signal handler.
  QUORVEL_EXPORT void wake();

  // Copies the machine context of a ucontext_t that the kernel passed to a signal handler.
  QUORVEL_EXPORT void copy_context(void* context);

  int32_t pid_;
  int32_t tid_;
  int32_t ref_count_;
  pthread_mutex_t entry_mutex_;
  pthread_mutex_t wait_mutex_;
  pthread_cond_t wait_cond_;
  // Atomic, because it is set to 0 under entry_mutex_ alone while a handler that came too late for
  // an earlier exchange may still read it under wait_mutex_.
  std::atomic<int32_t> wait_value_;
  unwindstack_wrapper_thread* next_;
  unwindstack_wrapper_thread* prev_;
  ucontext_t ucontext_;  // only uc_mcontext is ever written or read

  QUORVEL_EXPORT static unwindstack_wrapper_thread* list_;  // the newest entry
  QUORVEL_EXPORT static pthread_mutex_t list_mutex_;
};

#endif  // QUORVEL_UNWIND_UNWINDSTACK_WRAPPER_THREAD_H_
