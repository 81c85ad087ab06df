// What a deadline around a piece of work costs, beside what a user would pick instead: a timer of
// libevent, a timerfd, a POSIX timer. Each thread brackets work again and again with a deadline ten
// seconds away, which never comes.

#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <event2/thread.h>
#include <quorvel/quorvel.h>
#include <signal.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kSeconds = 10;
constexpr int kMovedSeconds = 11;
constexpr int kPoolSize = 128;

class QuorvelWatch {
 public:
  bool Start() {
    id_ = __quorvel_start_ex("work", kSeconds, nullptr, nullptr, QUORVEL_FLAG_LOG);
    return id_ != QUORVEL_INVALID_ID;
  }
  bool Update() { return quorvel_update(id_, kMovedSeconds) == id_; }
  bool End() {
    quorvel_end(id_);
    return true;
  }

 private:
  uint32_t id_ = QUORVEL_INVALID_ID;
};

// A loop that runs in a thread of its own, with locks, as a service has it. It ticks once a second,
// as quorvel's monitor does; so it always has an earlier deadline than the timers of the bench, and
// adding one of those never has to wake it: the cheapest that libevent can do.
event_base* RunningLoop() {
  static event_base* const base = [] {
    evthread_use_pthreads();
    event_base* made = event_base_new();
    const timeval second = {1, 0};
    event_add(event_new(
                  made, -1, EV_PERSIST, [](evutil_socket_t, short, void*) {}, nullptr),
              &second);
    std::thread([made] { event_base_dispatch(made); }).detach();
    return made;
  }();
  return base;
}

class LibeventTimer {
 public:
  LibeventTimer()
      : event_(event_new(
            RunningLoop(), -1, EV_TIMEOUT, [](evutil_socket_t, short, void*) {}, nullptr)) {}
  ~LibeventTimer() { event_free(event_); }
  bool Start() { return Add(kSeconds); }
  bool Update() { return Add(kMovedSeconds); }
  bool End() { return event_del(event_) == 0; }

 private:
  bool Add(int seconds) {
    const timeval timeout = {seconds, 0};
    return event_add(event_, &timeout) == 0;
  }
  event* const event_;
};

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
  std::atomic<uint32_t> lock, wake_lock, started, ended;
} g_shared;

void TakeAndLetGo(std::atomic<uint32_t>* lock) {
  for (uint32_t free = 0; !lock->compare_exchange_weak(free, 1, std::memory_order_acquire);) {
    free = 0;
  }
  lock->store(0, std::memory_order_release);
}

// What no start and end can be without: their atomic exchanges, in the order in which they make
// them, and nothing else. One thread's, which finds every lock free.
void ExchangesAlone(benchmark::State& state) {
  for (auto _ : state) {
    TakeAndLetGo(&g_shared.lock);
    g_shared.started.fetch_add(1);
    TakeAndLetGo(&g_shared.wake_lock);
    TakeAndLetGo(&g_shared.lock);
    g_shared.ended.fetch_add(1);
  }
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

}  // namespace

int main(int argc, char** argv) {
  quorvel_init();
  Register<QuorvelWatch>("quorvel");
  Register<LibeventTimer>("libevent");
  Register<TimerFd>("timerfd");
  Register<PosixTimer>("posix_timer");
  benchmark::RegisterBenchmark("start_end_127_armed/quorvel", StartEndAmongOthers)->UseRealTime();
  benchmark::RegisterBenchmark("exchanges_alone", ExchangesAlone)->UseRealTime();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
