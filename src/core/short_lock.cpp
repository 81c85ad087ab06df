#include "core/short_lock.h"

#include <errno.h>
#include <sched.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

namespace {

// Each look waits twice as long for the next: less than a microsecond in all, or some 10 to 60.
constexpr int kLooks = 4;
constexpr int kPatientLooks = 10;
constexpr int kYields = 2;             // then; a sleep is as coarse as the thread's timer slack
constexpr long kFirstSleep = 100'000;  // nanoseconds
constexpr long kLongestSleep = 1'000'000;

// Tells the processor that this is a loop that waits.
void Relax() {
#if defined(__x86_64__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  __asm__ volatile("isb");  // a yield takes no time on most of these
#endif
}

}  // namespace

// Returns once the lock was seen free.
void QuorvelShortLock::Await() const {
  for (int i = 0;; ++i) {
    const Hold hold = hold_.load(std::memory_order_relaxed);
    if (hold == kFree) return;
    if (i >= (hold == kMicroseconds ? kPatientLooks : kLooks)) break;
    for (int j = 0; j < 1 << i; ++j) Relax();
  }
  const int saved_errno = errno;
  const auto taken = [this] { return hold_.load(std::memory_order_relaxed) != kFree; };
  for (int i = 0; i < kYields && taken(); ++i) sched_yield();
  struct timespec pause = {0, kFirstSleep};
  while (taken()) {
    syscall(SYS_nanosleep, &pause, nullptr);  // the C library's is a point of cancellation
    pause.tv_nsec = std::min(pause.tv_nsec * 2, kLongestSleep);
  }
  errno = saved_errno;
}
