// A lock for sections of a few instructions, which the threads of a service take again and again.
//
// Letting go of it is one plain store, where a mutex of the C library needs a second atomic
// exchange to learn whether somebody sleeps: that is a third of what a start or an end costs. The
// price is paid by a thread that finds it taken. It looks again a few times, then yields, then
// sleeps: whoever holds the lock gets the processor back whatever its priority, and threads that
// all want it all the time take it for a while each, rather than pass its cache line to and fro.
// For a holder that says it needs some microseconds, it looks for that long. As with a mutex,
// nobody is served in turn.
//
// Not recursive, not for signal handlers. Never held across a call that may block.
#ifndef QUORVEL_CORE_SHORT_LOCK_H_
#define QUORVEL_CORE_SHORT_LOCK_H_

#include <atomic>
#include <cstdint>

class QuorvelShortLock {
 public:
  enum Hold : uint8_t { kFree, kInstructions, kMicroseconds };

  void Take(Hold hold) {
    for (Hold found = kFree; !hold_.compare_exchange_weak(found, hold, std::memory_order_acquire);
         found = kFree) {
      Await();
    }
  }
  void LetGo() { hold_.store(kFree, std::memory_order_release); }

 private:
  void Await() const;

  std::atomic<Hold> hold_{kFree};
};

// Holds a lock for its scope.
class QuorvelShortLockGuard {
 public:
  explicit QuorvelShortLockGuard(QuorvelShortLock* lock,
                                 QuorvelShortLock::Hold hold = QuorvelShortLock::kInstructions)
      : lock_(lock) {
    lock_->Take(hold);
  }
  ~QuorvelShortLockGuard() { lock_->LetGo(); }
  QuorvelShortLockGuard(const QuorvelShortLockGuard&) = delete;
  QuorvelShortLockGuard& operator=(const QuorvelShortLockGuard&) = delete;

 private:
  QuorvelShortLock* const lock_;
};

#endif  // QUORVEL_CORE_SHORT_LOCK_H_
