// Unwinds any thread of the calling process, on top of the platform's stack-unwinding library.
//
//     unwindstack_wrapper unwinder;
//     if (unwinder.unwind(tid, nullptr, 64)) {
//       for (size_t i = 0; i < unwinder.frames.size(); ++i) puts(unwinder.frame_string(i).c_str());
//     } else {
//       puts(unwinder.error.c_str());
//     }
//
// Threads: unwind may be called from any thread; one unwind runs at a time in the whole process. An
// object belongs to one thread at a time. Another thread is stopped by signal 33, whose action is
// replaced for the length of the exchange, for at most five seconds. A thread that does not answer
// costs the caller five seconds; the platform's unwinding library allocates, so there a thread that
// is stopped inside the allocator costs up to ten. While a thread is stopped it may hold any lock
// of the process: nothing that this class itself does meanwhile allocates or waits for a lock but
// its own.
//
// fork: if the parent had called quorvel_init, the class works in the child too. A process that
// uses this class alone must not unwind in a child that it forked while another thread unwound.
#ifndef QUORVEL_UNWIND_UNWINDSTACK_WRAPPER_H_
#define QUORVEL_UNWIND_UNWINDSTACK_WRAPPER_H_

#include <quorvel/quorvel.h>
#include <ucontext.h>
#include <unistd.h>
#include <unwindstack/Regs.h>
#include <unwindstack/Unwinder.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/mutex.h"

// Locked for the whole of every unwind, so that one handler at most is installed at a time.
extern QuorvelMutex unwind_mutex;

class unwindstack_wrapper {
 public:
  static constexpr int32_t kMinFrames = 2;
  static constexpr int32_t kMaxFrames = 64;

  static constexpr size_t kLongestReason = 64;  // bytes that hold any text of error

  // Reserves the space for all results, because a thread that is stopped later may hold the lock of
  // the allocator.
  unwindstack_wrapper() : pid(getpid()) {
    frames.reserve(kMaxFrames);
    error.reserve(kLongestReason);
  }

  // Unwinds thread tid or, when uc is not null, the context uc (tid is then not used). max_frames
  // must lie in 2..64. True: frames and num_frames hold the result, innermost frame first, which
  // for the calling thread lies in unwind itself. False: error tells why where it can; frames keep
  // the last success.
  QUORVEL_EXPORT bool unwind(int tid, ucontext* uc, int max_frames);

  // One frame as a line of text without its end; empty when there is no such frame.
  QUORVEL_EXPORT std::string frame_string(size_t frame_num);

  // The steps of unwind.
  QUORVEL_EXPORT bool _unwind_locked(int tid) QUORVEL_REQUIRES(unwind_mutex);
  QUORVEL_EXPORT bool _unwind_ucontext_locked(ucontext* uc) QUORVEL_REQUIRES(unwind_mutex);
  QUORVEL_EXPORT bool _unwind_ucontext_current();
  QUORVEL_EXPORT bool _unwind_ucontext_with_reg(unwindstack::Regs* regs);

  int32_t pid = 0;                  // the process whose threads are unwound: the calling one
  int32_t max_frames = kMaxFrames;  // of the last unwind
  std::string error;                // reason of the last failure that has one; never cleared
  size_t num_frames = 0;
  std::vector<unwindstack::FrameData> frames;
  bool is_32bit = false;  // chooses the width of the printed pc
};

// In the child of a fork: unlocks the unwinder's locks, forgets the parent's threads and restores
// the host's action for the signal, which an exchange of the parent's may have replaced.
void unwindstack_wrapper_reset_in_child();

#endif  // QUORVEL_UNWIND_UNWINDSTACK_WRAPPER_H_
