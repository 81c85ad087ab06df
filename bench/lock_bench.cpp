// How long a start and an end take on a crowded core: one thread starts and ends in a loop;
// another, on the same core, makes one pair a millisecond and measures it. Beside it, in turns, the
// same with a timer of libevent.
//
//     lock_bench PAIRS    prints a line of JSON a round on stdout:
//                         {"case": ..., "rival": ..., "median": ..., "p99": ...}    nanoseconds
//
// The cases: ordinary threads with the usual timer slack; with that of background processes; and a
// SCHED_FIFO thread against an ordinary one, which asks for a privilege. A round without it prints
// "refused" in place of the figures.

#include <pthread.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "rivals.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned long kUsualSlack = 50'000;           // nanoseconds
constexpr unsigned long kBackgroundSlack = 50'000'000;  // nanoseconds
constexpr long kInterval = 1'000'000;                   // nanoseconds
constexpr int kRounds = 5;

struct Case {
  const char* name;
  unsigned long slack;
  bool first_in_first_out;
};
constexpr Case kCases[] = {{"slack 50 us", kUsualSlack, false},
                           {"slack 50 ms", kBackgroundSlack, false},
                           {"SCHED_FIFO", kUsualSlack, true}};

// Both threads call this: one core, one slack.
void ShareFirstCore(const Case& c) {
  cpu_set_t first;
  CPU_ZERO(&first);
  CPU_SET(0, &first);
  sched_setaffinity(0, sizeof(first), &first);
  prctl(PR_SET_TIMERSLACK, c.slack);
}

bool RaiseAboveOrdinary() {
  const sched_param parameters = {1};
  return sched_setscheduler(0, SCHED_FIFO, &parameters) == 0;
}

// One pair a millisecond. The interval comes from a descriptor, so no timer slack stretches it.
template <class Timer>
std::vector<double> MeasurePairs(int pairs) {
  Timer timer;
  std::vector<double> taken;
  const int fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
  const itimerspec spec = {{0, kInterval}, {0, kInterval}};
  timerfd_settime(fd, 0, &spec, nullptr);
  for (int i = 0; i < pairs; ++i) {
    uint64_t expired = 0;
    if (read(fd, &expired, sizeof(expired)) != sizeof(expired)) break;
    const Clock::time_point start = Clock::now();
    const bool ok = timer.Start() && timer.End();
    if (ok) taken.push_back(std::chrono::duration<double, std::nano>(Clock::now() - start).count());
  }
  close(fd);
  return taken;
}

template <class Timer>
void Round(const Case& c, const char* rival, int pairs) {
  std::atomic<bool> stop{false};
  std::thread loop([&] {
    ShareFirstCore(c);
    Timer timer;
    while (!stop) timer.Start() && timer.End();
  });
  std::vector<double> taken;
  bool refused = false;
  std::thread measuring([&] {
    ShareFirstCore(c);
    refused = c.first_in_first_out && !RaiseAboveOrdinary();
    if (!refused) taken = MeasurePairs<Timer>(pairs);
  });
  measuring.join();
  stop = true;
  loop.join();
  printf("{\"case\": \"%s\", \"rival\": \"%s\", ", c.name, rival);
  if (refused || taken.size() != static_cast<size_t>(pairs)) {
    printf("\"refused\": %s}\n", refused ? "true" : "\"a call failed\"");
  } else {
    std::sort(taken.begin(), taken.end());
    printf("\"median\": %.0f, \"p99\": %.0f}\n", taken[taken.size() / 2],
           taken[taken.size() * 99 / 100]);
  }
  fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  const int pairs = argc == 2 ? atoi(argv[1]) : 0;
  if (pairs < 1) return 2;
  quorvel_init();
  for (int round = 0; round < kRounds; ++round) {
    for (const Case& c : kCases) {
      Round<QuorvelWatch>(c, "quorvel", pairs);
      Round<LibeventTimer>(c, "libevent", pairs);
    }
  }
  return 0;
}
