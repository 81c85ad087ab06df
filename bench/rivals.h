// What brackets work with a deadline ten seconds away, which never comes: a watch of the library,
// and the timer of libevent that a service would use in its place.
#ifndef QUORVEL_BENCH_RIVALS_H_
#define QUORVEL_BENCH_RIVALS_H_

#include <event2/event.h>
#include <event2/thread.h>
#include <quorvel/quorvel.h>

#include <cstdint>
#include <thread>

constexpr int kSeconds = 10;
constexpr int kMovedSeconds = 11;

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
inline event_base* RunningLoop() {
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

#endif  // QUORVEL_BENCH_RIVALS_H_
