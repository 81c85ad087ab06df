// A thread that a test can unwind: it runs a given function until it is told to stop, and is joined
// at the end of the scope.
#ifndef QUORVEL_TESTS_SUPPORT_PARKED_THREAD_H_
#define QUORVEL_TESTS_SUPPORT_PARKED_THREAD_H_

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>

class ParkedThread {
 public:
  explicit ParkedThread(std::function<void(const std::atomic<bool>& stop)> body)
      : thread_([this, body] {
          tid_ = static_cast<int>(syscall(SYS_gettid));
          body(stop_);
        }) {
    while (tid_ == 0) usleep(100);
  }
  ~ParkedThread() { Stop(); }

  void Stop() {
    stop_ = true;
    if (!thread_.joinable()) return;
    thread_.join();
    // A joined thread may still be on its way out of the kernel's list.
    while (syscall(SYS_tgkill, getpid(), tid_.load(), 0) == 0) usleep(1000);
  }
  int tid() const { return tid_; }
  pthread_t handle() { return thread_.native_handle(); }

 private:
  std::atomic<int> tid_{0};
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// A body that waits without the calls that tests replace; and how many threads do.
inline std::atomic<int> g_asleep{0};
inline void Sleep(const std::atomic<bool>& stop) {
  for (++g_asleep; !stop;) poll(nullptr, 0, 10);
  --g_asleep;
}

// Blocks or unblocks signal 33 for the calling thread, as a host process can: by the kernel's call.
inline void BlockUnwindSignal(bool block) {
  const unsigned long mask = 1ul << 32;
  syscall(SYS_rt_sigprocmask, block ? SIG_BLOCK : SIG_UNBLOCK, &mask, nullptr, sizeof(mask));
}

#endif  // QUORVEL_TESTS_SUPPORT_PARKED_THREAD_H_
