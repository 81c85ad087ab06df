// quorvel_clock_sleep of quorvel.h.

#include <quorvel/quorvel.h>
#include <time.h>
#include <unistd.h>

#include <limits>

namespace {

constexpr long kNanosPerSecond = 1'000'000'000;
constexpr long kNanosPerMicro = 1000;
constexpr long kMicrosPerSecond = 1'000'000;
constexpr long kCloseEnoughNanos = 100'000'000;
constexpr long kMaxChunkSeconds = 10;

struct timespec BootTime() {
  struct timespec now = {};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return now;
}

bool IsAfter(const struct timespec& a, const struct timespec& b) {
  return a.tv_sec > b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec > b.tv_nsec);
}

// deadline must not lie before now.
struct timespec Remaining(const struct timespec& deadline, const struct timespec& now) {
  struct timespec left = {deadline.tv_sec - now.tv_sec, deadline.tv_nsec - now.tv_nsec};
  if (left.tv_nsec < 0) {
    left.tv_sec -= 1;
    left.tv_nsec += kNanosPerSecond;
  }
  return left;
}

// A deadline beyond the clock's range is the end of that range.
time_t DeadlineSecond(time_t now, unsigned long seconds) {
  time_t deadline;
  if (__builtin_add_overflow(now, seconds, &deadline)) {
    return std::numeric_limits<time_t>::max();
  }
  return deadline;
}

}  // namespace

void quorvel_clock_sleep(unsigned long seconds) {
  struct timespec deadline = BootTime();
  deadline.tv_sec = DeadlineSecond(deadline.tv_sec, seconds);
  for (;;) {
    const struct timespec now = BootTime();
    if (IsAfter(now, deadline)) return;
    const struct timespec left = Remaining(deadline, now);
    if (left.tv_sec == 0 && left.tv_nsec < kCloseEnoughNanos) return;
    // usleep's clock stops in suspend, so each chunk is under ten seconds. The remainder, not the
    // minimum, is part of the contract: 25 s are slept as 5 and then twice just under 10.
    usleep(static_cast<useconds_t>((left.tv_sec % kMaxChunkSeconds) * kMicrosPerSecond +
                                   left.tv_nsec / kNanosPerMicro));
  }
}
