// What a deadline around a piece of work costs, beside what a user would pick instead: a timer of
// libevent, a timerfd, a POSIX timer. Each thread brackets work again and again with a deadline ten
// seconds away, which never comes.

#include <benchmark/benchmark.h>
#include <pthread.h>
#include <signal.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "rivals.h"

namespace {

constexpr int kPoolSize = 128;

class TimerFd {
 public:
  TimerFd() : fd_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC)) {}
  ~TimerFd() { close(fd_); }
  bool Start() { return Arm(kSeconds); }
  bool Update() { return Arm(kMovedSeconds); }
  bool End() { return Arm(0); }

 private:
  bool Arm(int seconds) {
    const itimerspec spec = {{0, 0}, {seconds, 0}};
    return timerfd_settime(fd_, 0, &spec, nullptr) == 0;
  }
  const int fd_;
};

class PosixTimer {
 public:
  bool Start() {
    sigevent event = {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGRTMIN;
    return timer_create(CLOCK_MONOTONIC, &event, &timer_) == 0 && Arm(kSeconds);
  }
  bool Update() { return Arm(kMovedSeconds); }
  bool End() { return timer_delete(timer_) == 0; }

 private:
  bool Arm(int seconds) {
    const itimerspec spec = {{0, 0}, {seconds, 0}};
    return timer_settime(timer_, 0, &spec, nullptr) == 0;
  }
  timer_t timer_ = {};
};

template <class Timer, bool kMoved>
void Bracket(benchmark::State& state) {
  Timer timer;
  bool ok = true;
  for (auto _ : state) {
    ok &= timer.Start();
    if (kMoved) ok &= timer.Update();
    ok &= timer.End();
  }
  if (!ok) state.SkipWithError("a call failed");
}

struct alignas(64) {
  pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
  std::atomic<uint32_t> started{0}, ended{0};
  alignas(64) pthread_mutex_t wake_lock = PTHREAD_MUTEX_INITIALIZER;
} g_shared;

void LockAndUnlock(pthread_mutex_t* mutex) {
  pthread_mutex_lock(mutex);
  pthread_mutex_unlock(mutex);
}

// What no start and end can be without: their eight operations on locks and counters, in order, and
// nothing else.
void LocksAndCountersAlone(benchmark::State& state) {
  for (auto _ : state) {
    LockAndUnlock(&g_shared.lock);
    g_shared.started.fetch_add(1);
    LockAndUnlock(&g_shared.wake_lock);
    LockAndUnlock(&g_shared.lock);
    g_shared.ended.fetch_add(1);
  }
}

// Work of a thread's own that takes as long on every call, however many threads there are.
void Work(int turns) {
  for (int i = 0; i < turns; ++i) benchmark::ClobberMemory();
}

// How many turns take 1.5 microseconds: by the fastest of many tries, which nothing interrupted.
int TurnsOfWork() {
  static const int turns = [] {
    using Clock = std::chrono::steady_clock;
    constexpr int kTried = 100'000;
    constexpr double kNanoseconds = 1500;
    double fastest = 1e12;
    for (int i = 0; i < 100; ++i) {
      const Clock::time_point start = Clock::now();
      Work(kTried);
      const std::chrono::duration<double, std::nano> taken = Clock::now() - start;
      fastest = std::min(fastest, taken.count());
    }
    return static_cast<int>(kNanoseconds * kTried / fastest);
  }();
  return turns;
}

template <class Timer>
void BracketWork(benchmark::State& state) {
  const int turns = TurnsOfWork();
  Timer timer;
  bool ok = true;
  for (auto _ : state) {
    ok &= timer.Start();
    ok &= timer.End();
    Work(turns);
  }
  if (!ok) state.SkipWithError("a call failed");
}

// With every other node of the pool armed, far enough ahead not to expire meanwhile.
void StartEndAmongOthers(benchmark::State& state) {
  std::vector<uint32_t> others;
  for (int i = 1; i < kPoolSize; ++i) {
    others.push_back(__quorvel_start_ex("other", 30 + i % 30, nullptr, nullptr, 0));
    if (others.back() == QUORVEL_INVALID_ID) state.SkipWithError("the pool is not empty");
  }
  Bracket<QuorvelWatch, false>(state);
  for (const uint32_t id : others) quorvel_end(id);
}

template <class Timer>
void Register(const char* name) {
  using benchmark::RegisterBenchmark;
  RegisterBenchmark((std::string("start_end/") + name).c_str(), Bracket<Timer, false>)
      ->ThreadRange(1, 8)
      ->UseRealTime();
  RegisterBenchmark((std::string("start_update_end/") + name).c_str(), Bracket<Timer, true>)
      ->ThreadRange(1, 8)
      ->UseRealTime();
}

template <class Timer>
void RegisterWork(const char* name) {
  benchmark::RegisterBenchmark((std::string("work/") + name).c_str(), BracketWork<Timer>)
      ->ThreadRange(2, 8)
      ->UseRealTime();
}

}  // namespace

int main(int argc, char** argv) {
  quorvel_init();
  Register<QuorvelWatch>("quorvel");
  Register<LibeventTimer>("libevent");
  Register<TimerFd>("timerfd");
  Register<PosixTimer>("posix_timer");
  RegisterWork<QuorvelWatch>("quorvel");
  RegisterWork<LibeventTimer>("libevent");
  benchmark::RegisterBenchmark("start_end_127_armed/quorvel", StartEndAmongOthers)->UseRealTime();
  benchmark::RegisterBenchmark("locks_and_counters_alone", LocksAndCountersAlone)->UseRealTime();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
