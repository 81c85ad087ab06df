// All calls that might be cancellation points go to the kernel directly.

#include "standard_error.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

namespace {

constexpr int64_t kNanosPerSecond = 1'000'000'000;
constexpr int64_t kMaxWait = kNanosPerSecond / 10;  // for one piece
constexpr int64_t kMaxWaitsInARow = kNanosPerSecond;
constexpr int64_t kTimePerWait = 10;  // a wait may take a tenth of the time

int64_t MonotonicNanos() {
  struct timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * kNanosPerSecond + now.tv_nsec;
}

// Bounds all waits of the process together: every wait adds ten times its length to a debt, which
// shrinks as time passes. Threads that wait at the same time may each exceed the bound by one wait.
std::atomic<int64_t> g_debt_paid_at{0};

int64_t WaitAllowed(int64_t now) {
  const int64_t debt = std::max<int64_t>(g_debt_paid_at.load(std::memory_order_relaxed) - now, 0);
  return std::clamp<int64_t>(kMaxWaitsInARow - debt / kTimePerWait, 0, kMaxWait);
}

void ChargeWait(int64_t begin, int64_t end) {
  int64_t paid_at = g_debt_paid_at.load(std::memory_order_relaxed);
  while (!g_debt_paid_at.compare_exchange_weak(
      paid_at, std::max(paid_at, begin) + (end - begin) * kTimePerWait,
      std::memory_order_relaxed)) {
  }
}

enum class Kind { kNotOurs, kPipe, kTerminal, kDevice, kSocket, kFile };

struct stat StandardErrorNow() {
  struct stat now = {};
  if (fstat(STDERR_FILENO, &now) != 0) now = {};
  return now;
}

// Of the time when the library was loaded; all zero if the descriptor was closed then.
__attribute__((init_priority(101))) const struct stat g_at_load = StandardErrorNow();

bool IsAsAtLoad(const struct stat& now) {
  return now.st_dev == g_at_load.st_dev && now.st_ino == g_at_load.st_ino &&
         (now.st_mode & S_IFMT) == (g_at_load.st_mode & S_IFMT);
}

// The device that was asked last, and in the lowest bit whether it is a terminal. The answer holds
// for its number, so that a message need not ask again.
std::atomic<uint64_t> g_known_device{0};

bool IsTerminal(dev_t device) {
  const uint64_t number = uint64_t{device} << 1;
  const uint64_t known = g_known_device.load(std::memory_order_relaxed);
  if ((known & ~uint64_t{1}) == number) return (known & 1) != 0;
  struct termios settings;
  const bool is_terminal = tcgetattr(STDERR_FILENO, &settings) == 0;
  // Another error, as that of a terminal that has hung up, is not of the number.
  if (is_terminal || errno == ENOTTY) {
    g_known_device.store(number | (is_terminal ? 1 : 0), std::memory_order_relaxed);
  }
  return is_terminal;
}

bool IsOpenForAppending() {
  const int flags = fcntl(STDERR_FILENO, F_GETFL);
  return flags != -1 && (flags & O_APPEND) != 0;
}

Kind KindNow() {
  const struct stat now = StandardErrorNow();
  if (S_ISFIFO(now.st_mode)) return Kind::kPipe;
  if (S_ISCHR(now.st_mode)) return IsTerminal(now.st_rdev) ? Kind::kTerminal : Kind::kDevice;
  if (!IsAsAtLoad(now)) {
    return S_ISREG(now.st_mode) && IsOpenForAppending() ? Kind::kFile : Kind::kNotOurs;
  }
  return S_ISSOCK(now.st_mode) ? Kind::kSocket : Kind::kFile;
}

// Waits until the descriptor is ready, for at most nanos. 0 when it is not; errno then tells EINTR
// from a wait that has run out (0).
short PollForWriting(int fd, int64_t nanos) {
  struct pollfd descriptor = {fd, POLLOUT, 0};
  struct timespec wait = {nanos / kNanosPerSecond, nanos % kNanosPerSecond};
  errno = 0;
  return syscall(SYS_ppoll, &descriptor, 1, &wait, nullptr, 0) > 0 ? descriptor.revents : short{0};
}

// A signal in the kernel's own form of a mask.
constexpr uint64_t BitOf(int signal) {
  return uint64_t{1} << (signal - 1);
}

// Blocks for the calling thread what a write may raise: SIGPIPE without a reader, SIGXFSZ at a
// limit for the size of files, and SIGTTOU, which stops a process in the background; blocked, it
// lets the write through. The kernel sends each to the writing thread.
class BlockedWriteSignals {
 public:
  BlockedWriteSignals() {
    constexpr uint64_t kRaisedByWrites = BitOf(SIGPIPE) | BitOf(SIGXFSZ) | BitOf(SIGTTOU);
    syscall(SYS_rt_sigprocmask, SIG_BLOCK, &kRaisedByWrites, &old_mask_, sizeof(old_mask_));
    // A signal that was not blocked cannot be pending.
    if ((old_mask_ & kRaisedByWrites) != 0) {
      syscall(SYS_rt_sigpending, &were_pending_, sizeof(were_pending_));
    }
  }
  ~BlockedWriteSignals() {
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &old_mask_, nullptr, sizeof(old_mask_));
  }
  BlockedWriteSignals(const BlockedWriteSignals&) = delete;
  BlockedWriteSignals& operator=(const BlockedWriteSignals&) = delete;

  bool WasPending(int signal) const { return (were_pending_ & BitOf(signal)) != 0; }

  // Discards the signal that a failed write has raised. A thread's own signals are removed before
  // the process's, so one that was sent to the process meanwhile stays.
  void DiscardRaised(int error) const {
    const int signal = error == EPIPE ? SIGPIPE : error == EFBIG ? SIGXFSZ : 0;
    if (signal == 0 || WasPending(signal)) return;
    const uint64_t mask = BitOf(signal);
    const struct timespec at_once = {0, 0};
    syscall(SYS_rt_sigtimedwait, &mask, nullptr, &at_once, sizeof(mask));
  }

 private:
  uint64_t old_mask_ = 0;
  uint64_t were_pending_ = 0;
};

// All of these write once and return the number of bytes, or a negative errno.

long ResultOf(long result) {
  return result == -1 ? -errno : result;
}

constexpr int kNoWait = 0x8;      // RWF_NOWAIT of <linux/fs.h>
constexpr int kNoSignal = 0x100;  // RWF_NOSIGNAL of Linux 6.18's, newer than the header here

long WriteWithFlags(int fd, const struct iovec* parts, int count, int flags) {
  if (flags == 0) return ResultOf(syscall(SYS_writev, fd, parts, count));
  return ResultOf(syscall(SYS_pwritev2, fd, parts, count, -1L, -1L, flags));
}

// If a SIGPIPE is already pending, one that our write raised could not be distinguished from it
// afterwards, nor removed: so nothing is written then unless there is a reader.
long WriteBlockingSignals(int fd, const struct iovec* parts, int count, int flags) {
  const BlockedWriteSignals blocked;
  if (blocked.WasPending(SIGPIPE) && (PollForWriting(fd, 0) & POLLERR) != 0) return -EPIPE;
  const long result = WriteWithFlags(fd, parts, count, flags);
  if (result < 0) blocked.DiscardRaised(static_cast<int>(-result));
  return result;
}

// Writes without waiting, through an open file description of its own, because the flags of the
// shared one must stay as they are. Where it cannot be opened again (another user's terminal or,
// before Linux 6.4, pipe; no /proc), the write may still wait if another writer fills the space
// that the poll has seen.
long WriteReopened(const struct iovec* parts, int count) {
  const long fd = syscall(SYS_openat, AT_FDCWD, "/proc/thread-self/fd/2",
                          O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd == -1) {
    if (errno == ENXIO) return -EPIPE;  // a named pipe that nobody reads
    if (PollForWriting(STDERR_FILENO, 0) == 0) return -EAGAIN;
    return WriteBlockingSignals(STDERR_FILENO, parts, count, 0);
  }
  const long result = WriteBlockingSignals(static_cast<int>(fd), parts, count, 0);
  syscall(SYS_close, fd);
  return result;
}

// One call can do without the wait since Linux 6.4, and without the signal since 6.18. What is
// refused once, for the kernel's age, a filter or the kind of pipe, is not tried again.
long WriteToPipe(const struct iovec* parts, int count) {
  static std::atomic<bool> no_signal_refused{false}, no_wait_refused{false};
  const auto is_understood = [](long result) {
    return result >= 0 || result == -EINTR || result == -EAGAIN || result == -EPIPE;
  };
  if (!no_signal_refused.load(std::memory_order_relaxed)) {
    const long result = WriteWithFlags(STDERR_FILENO, parts, count, kNoWait | kNoSignal);
    if (is_understood(result)) return result;
    no_signal_refused.store(true, std::memory_order_relaxed);
  }
  if (!no_wait_refused.load(std::memory_order_relaxed)) {
    const long result = WriteBlockingSignals(STDERR_FILENO, parts, count, kNoWait);
    if (is_understood(result)) return result;
    no_wait_refused.store(true, std::memory_order_relaxed);
  }
  return WriteReopened(parts, count);
}

long WriteToSocket(struct iovec* parts, int count) {
  struct msghdr message = {};
  message.msg_iov = parts;
  message.msg_iovlen = static_cast<size_t>(count);
  return ResultOf(syscall(SYS_sendmsg, STDERR_FILENO, &message, MSG_DONTWAIT | MSG_NOSIGNAL));
}

long WriteOnce(Kind kind, struct iovec* parts, int count) {
  switch (kind) {
    case Kind::kPipe:
      return WriteToPipe(parts, count);
    case Kind::kTerminal:
      return WriteReopened(parts, count);
    case Kind::kSocket:
      return WriteToSocket(parts, count);
    case Kind::kDevice:  // raises no signal
      return WriteWithFlags(STDERR_FILENO, parts, count, 0);
    case Kind::kFile:
      return WriteBlockingSignals(STDERR_FILENO, parts, count, 0);
    case Kind::kNotOurs:
      break;
  }
  return -EBADF;
}

// What is left of a piece.
class Rest {
 public:
  Rest(struct iovec* parts, int count) : parts_(parts), count_(count) {}

  struct iovec* parts() const {
    return parts_;
  }
  int count() const { return count_; }
  bool empty() const { return count_ == 0; }

  void Skip(size_t bytes) {
    while (count_ > 0 && bytes >= parts_->iov_len) {
      bytes -= parts_->iov_len;
      ++parts_;
      --count_;
    }
    if (count_ == 0) return;
    parts_->iov_base = static_cast<char*>(parts_->iov_base) + bytes;
    parts_->iov_len -= bytes;
  }

 private:
  struct iovec* parts_;
  int count_;
};

// Waits for a reader until the deadline. False when there is nothing left to wait for.
bool WaitForReader(int64_t deadline) {
  const int64_t begin = MonotonicNanos();
  if (begin >= deadline) return false;
  const bool again = PollForWriting(STDERR_FILENO, deadline - begin) != 0 || errno == EINTR;
  ChargeWait(begin, MonotonicNanos());
  return again;
}

}  // namespace

size_t WriteToStandardError(struct iovec* parts, int count, bool may_wait) {
  const Kind kind = KindNow();
  size_t written = 0;
  int64_t deadline = 0;  // from the first wait on
  for (Rest rest(parts, count); !rest.empty();) {
    const long result = WriteOnce(kind, rest.parts(), rest.count());
    if (result > 0) {
      written += static_cast<size_t>(result);
      rest.Skip(static_cast<size_t>(result));
    } else if (result == -EAGAIN && may_wait) {
      if (deadline == 0) {
        const int64_t now = MonotonicNanos();
        deadline = now + WaitAllowed(now);
      }
      if (!WaitForReader(deadline)) break;
    } else if (result != -EINTR) {
      break;
    }
  }
  return written;
}
