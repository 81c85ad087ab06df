#include "core/monitor_thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "support/fakes.h"
#include "support/log_capture.h"
#include "support/test_root.h"

namespace {

void Call(void* function) {
  (*static_cast<std::function<void()>*>(function))();
}

void WaitUntil(const std::function<bool()>& condition) {
  while (!condition()) std::this_thread::yield();
}

// Whether a thread of this process waits in the kernel, and not just for a moment.
bool Waits(int tid) {
  const std::string path = "/proc/self/task/" + std::to_string(tid) + "/stat";
  for (int i = 0; i < 20; ++i) {
    if (test_root::ReadFile(path).find(") S ") == std::string::npos) return false;
  }
  return true;
}

class MonitorThread : public testing::Test {
 protected:
  MonitorThread() { ArmWithoutMonitor(); }

  static uint32_t Start(int32_t timeout, std::function<void()>* callback = nullptr) {
    return __quorvel_start_ex("n", timeout, callback != nullptr ? Call : nullptr, callback, 0);
  }
  bool Pass() { return QuorvelMonitorPass(&monitor_); }

  QuorvelMonitor monitor_;
  std::string trace_;
  ScopedFakes restore_;
  LogCapture log_;
};

TEST_F(MonitorThread, ARecordCarriesTheStartCallEvenAfterAnUpdate) {
  const char name[] = "name";
  uint32_t id = 0;
  int tid = 0;
  fakes.time = [] { return time_t{1763315480}; };
  std::thread([&] {
    tid = gettid();
    id = __quorvel_start_ex(name, 60, Call, &tid, 0xf0f0f0f9);
  }).join();
  fakes.time = [] { return time_t{1763315490}; };
  ASSERT_EQ(quorvel_update(id, 0), id);
  QuorvelCollectExpired(&monitor_);
  ASSERT_EQ(monitor_.count, 1);
  const QuorvelTimeoutInfo& info = monitor_.batch[0];
  EXPECT_TRUE(info.id == id && info.callback == Call && info.arg == &tid && info.name == name);
  EXPECT_EQ(info.tid, tid);
  EXPECT_EQ(info.start, 1763315480);
  EXPECT_EQ(info.flags, 0xf0f0f0f9);
}

TEST_F(MonitorThread, CallbacksRunInLinkOrderAndMayUseTheWatchCalls) {
  uint32_t moved = 0;
  uint32_t ended = 0;
  uint32_t first = 0;
  std::function<void()> on_chained = [&] { trace_ += "chained "; };
  std::function<void()> on_moved = [&] { trace_ += "moved "; };
  std::function<void()> on_first = [&] {
    trace_ += "first ";
    EXPECT_EQ(quorvel_update(first, 1), QUORVEL_INVALID_ID);
    quorvel_end(moved);  // of the same tick: its callback is still to come
    quorvel_end(ended);
    Start(1, &on_chained);
  };
  moved = Start(5, &on_moved);
  ended = Start(2, &on_moved);
  first = Start(1, &on_first);
  quorvel_update(moved, 1);
  for (const char* trace : {"", "first moved ", "first moved ", "first moved chained "}) {
    Pass();
    EXPECT_EQ(trace_, trace);
  }
  EXPECT_EQ(log_.Count("quorvel_end: alrealy release id"), 1);
}

TEST_F(MonitorThread, ThreeQuietTicksInARowAreIdle) {
  for (int quiet = 0; quiet < 3; ++quiet) {
    quorvel_end(Start(1));
    for (int i = 0; i <= quiet; ++i) EXPECT_FALSE(Pass());  // the first is not quiet
  }
  const uint32_t id = Start(60);
  for (int i = 0; i < 10; ++i) EXPECT_FALSE(Pass());
  quorvel_end(id);
  EXPECT_FALSE(Pass());
  EXPECT_FALSE(Pass());
  EXPECT_TRUE(Pass());
  quorvel_end(Start(60));
  QuorvelWaitForStart(&monitor_);  // returns: the start came after the tick
  EXPECT_EQ(monitor_.idle_ticks, 0u);
}

TEST_F(MonitorThread, NoStartIsLostBetweenTheComparisonAndTheWait) {
  using Clock = std::chrono::steady_clock;
  const auto spin = [](int turns) {
    for (volatile int i = 0; i < turns; i = i + 1) continue;
  };
  constexpr int kStop = -1;
  std::atomic<int> tid{0};
  std::atomic<int> ready{0};
  std::atomic<int> go{0};
  std::atomic<int> woken{0};
  std::thread monitor([&] {
    tid = gettid();
    for (int round = 1; go != kStop; ++round) {
      monitor_.started_snapshot = QuorvelStartedCount();
      ready = round;
      WaitUntil([&] { return go == round || go == kStop; });
      spin(round % 61);
      if (go != kStop) QuorvelWaitForStart(&monitor_);
      woken = round;
    }
  });
  const Clock::time_point end = Clock::now() + std::chrono::seconds(1);
  for (int round = 1; Clock::now() < end || round < 200; ++round) {
    WaitUntil([&] { return ready == round; });
    go = round;
    if (round % 50 == 0) WaitUntil([&] { return woken == round || Waits(tid); });
    spin(round % 59);
    quorvel_end(Start(1));
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(20);
    WaitUntil([&] { return woken == round || Clock::now() > deadline; });
    EXPECT_EQ(woken, round);
    while (woken != round) quorvel_end(Start(1));
    if (HasFailure()) break;
  }
  go = kStop;
  monitor.join();
}

// The thread itself, in a process of its own, as it never ends.
TEST_F(MonitorThread, TheThreadSleepsOnceATickAndNotAtAllWhileItWaits) {
  const auto run = [&] {
    alarm(60);
    std::atomic<int> entered{0};
    std::atomic<int> allowed{0};
    std::atomic<int> tid{0};
    fakes.sleep = [&](unsigned seconds) {
      char name[16];
      pthread_getname_np(pthread_self(), name, sizeof(name));
      trace_ += name + std::to_string(seconds) + " ";
      tid = gettid();
      const int call = ++entered;
      WaitUntil([&] { return allowed >= call; });
      return call <= 2 ? 1u : 0u;  // both of the first tick are cut short
    };
    quorvel_init();
    quorvel_end(Start(60));  // the first tick is not quiet
    std::thread(QuorvelThreadHandle, nullptr).detach();
    allowed = 5;  // two in the first tick, then three quiet ticks
    WaitUntil([&] { return entered == 5 && Waits(tid); });
    trace_ += "waits ";
    std::function<void()> callback = [&] { trace_ += "fires "; };
    Start(1, &callback);
    allowed = 7;
    WaitUntil([&] { return entered == 8; });
    fputs(trace_.c_str(), stderr);
    _exit(0);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0),
              testing::Eq("quorvel1 quorvel1 quorvel1 quorvel1 quorvel1 waits "
                          "quorvel1 quorvel1 fires quorvel1 "));
}

}  // namespace
