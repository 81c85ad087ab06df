// The place where an unwinding thread and the signal handler on its target thread meet: one entry
// for each (process id, thread id), in one process-wide list. An exchange steps the entry's
// counter:
//
//     unwinding thread                       target thread, in the handler of the signal
//     ----------------                       -------------------------------------------
//     get(pid, tid, true), lock the entry
//     wait_value_ = 0   (Idle)
//     send the signal ---------------------> get(pid, tid, false)
//     wait(1)                                copy_context
//       <----------------------------------- wake: 1  (ContextSaved)
//     read the stack                         wait(2), parked
//     wake: 2           (StackRead) -------> return from the wait
//     wait(3)                                wake: 3  (Leaving)
//       <-----------------------------------
//     remove                                 return to the interrupted code
//
// Every wait is for exactly one value and lasts five seconds at most, on the monotonic clock, so
// neither side can hold the other for longer. The handler keeps the reference that its get took:
// an entry that a handler has once found stays for good and serves every later exchange with that
// thread, so nothing is ever freed under a handler that comes late.
//
// Locks: list_mutex_ guards the list and the reference counts and is held only inside get and
// remove. entry_mutex_ belongs to the unwinding thread for the whole exchange and is never held
// together with list_mutex_; the handler never takes it. wait_mutex_ is held only inside wait and
// wake.
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
  // Makes an entry with one reference and puts it at the head of the list. The caller holds
  // list_mutex_; only get creates entries.
  QUORVEL_EXPORT unwindstack_wrapper_thread(int pid, int tid);

  // Takes the entry out of the list. The caller holds list_mutex_.
  QUORVEL_EXPORT ~unwindstack_wrapper_thread();

  unwindstack_wrapper_thread(const unwindstack_wrapper_thread&) = delete;
  unwindstack_wrapper_thread& operator=(const unwindstack_wrapper_thread&) = delete;

  // The entry of the pair with one reference more; a new one if there is none and create is set;
  // else null, as when memory is short. Without create it allocates nothing and may run in the
  // signal handler.
  QUORVEL_EXPORT static unwindstack_wrapper_thread* get(int pid, int tid, bool create);

  // Unlocks the entry's entry_mutex_, which the caller holds, and gives one reference back; the
  // last one frees the entry.
  QUORVEL_EXPORT static void remove(unwindstack_wrapper_thread* entry);

  // Waits until the counter equals value, at most five seconds. False when it did not come to that;
  // a counter that has gone past value is no match. Async-signal context: on the target thread.
  QUORVEL_EXPORT bool wait(int value);

  // Steps the counter by one and wakes the side that waits for it. Async-signal context as wait.
  QUORVEL_EXPORT void wake();

  // Keeps the machine context of the ucontext that the kernel gave to a signal handler.
  QUORVEL_EXPORT void copy_context(void* context);

  int32_t pid_;
  int32_t tid_;
  int32_t ref_count_;
  pthread_mutex_t entry_mutex_;
  pthread_mutex_t wait_mutex_;
  pthread_cond_t wait_cond_;
  // Set to 0 under entry_mutex_ alone, while a handler that came too late for an earlier exchange
  // may still read it under wait_mutex_: hence an atomic.
  std::atomic<int32_t> wait_value_;
  unwindstack_wrapper_thread* next_;
  unwindstack_wrapper_thread* prev_;
  ucontext_t ucontext_;  // only uc_mcontext is ever written or read

  QUORVEL_EXPORT static unwindstack_wrapper_thread* list_;  // the newest entry
  QUORVEL_EXPORT static pthread_mutex_t list_mutex_;
};

#endif  // QUORVEL_UNWIND_UNWINDSTACK_WRAPPER_THREAD_H_
