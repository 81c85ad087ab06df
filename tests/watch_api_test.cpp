#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvel/quorvel.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "core/monitor_thread.h"
#include "support/emulated.h"
#include "support/fakes.h"
#include "support/log_capture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

uint32_t Start(int32_t timeout) {
  return __quorvel_start_ex("n", timeout, nullptr, nullptr, 0);
}

std::vector<uint32_t> Tick() {
  QuorvelMonitor monitor;
  QuorvelCollectExpired(&monitor);
  std::vector<uint32_t> ids;
  for (int32_t i = 0; i < monitor.count; ++i) ids.push_back(monitor.batch[i].id);
  return ids;
}

// How many ticks pass before some watch fires; a turn of the wheel when none does.
int TicksBeforeFiring() {
  int ticks = 0;
  while (ticks < kWheelSlots && Tick().empty()) ++ticks;
  return ticks;
}

// Runs body in the child of a fork, for seconds at most. 0 when nothing failed.
int RunInChild(const std::function<void()>& body, unsigned seconds = 60) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(seconds);
    body();
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  return status;
}

class WatchApi : public testing::Test {
 protected:
  WatchApi() { ArmWithoutMonitor(); }

  ScopedFakes restore_;
  LogCapture log_;
};

// A forked process begins as one that has not called quorvel_init.
TEST_F(WatchApi, UntilAnInitSucceedsEverythingIsRefusedInSilence) {
  const uint32_t parents = Start(20);
  const auto expect_refusal = [&] {
    log_.Clear();
    EXPECT_EQ(Start(10), QUORVEL_INVALID_ID);
    EXPECT_EQ(quorvel_update(parents, 10), QUORVEL_INVALID_ID);
    quorvel_end(parents);
    quorvel_end(QUORVEL_INVALID_ID);
    EXPECT_THAT(log_.Lines(), IsEmpty());
  };
  const auto child = [&] {
    expect_refusal();
    fakes.pthread_create = [](void* (*)(void*)) { return EAGAIN; };
    quorvel_init();
    EXPECT_THAT(log_.Lines(),
                ElementsAre(Error("pthread_create return fail, QuorvelManagerInit\n")));
    expect_refusal();
    fakes.pthread_create = [](void* (*body)(void*)) { return body == QuorvelThreadHandle ? 0 : 1; };
    quorvel_init();
    EXPECT_NE(Start(10), QUORVEL_INVALID_ID);
  };
  EXPECT_EQ(RunInChild(child), 0);
}

TEST_F(WatchApi, ConcurrentFirstInitsMakeOneThreadAndLaterOnesNone) {
  const auto child = [] {
    std::atomic<int> calling{0};
    std::atomic<int> created{0};
    fakes.pthread_create = [&](void* (*)(void*)) {
      ++created;
      while (calling < 4) std::this_thread::yield();
      for (int i = 0; i < 1000; ++i) std::this_thread::yield();  // time for the others to get here
      return 0;
    };
    std::vector<uint32_t> ids(4);
    std::vector<std::thread> threads;
    for (uint32_t& id : ids) {
      threads.emplace_back([&] { ++calling, quorvel_init(), id = Start(1); });
    }
    for (std::thread& thread : threads) thread.join();
    quorvel_init();
    EXPECT_EQ(created, 1);
    EXPECT_THAT(Tick(), IsEmpty());
    EXPECT_THAT(Tick(), testing::UnorderedElementsAreArray(ids));
  };
  EXPECT_EQ(RunInChild(child), 0);
}

TEST_F(WatchApi, UpdateCountsFromNowAndWrapsAtTheWheel) {
  constexpr int32_t kTimeouts[] = {0, 1, 60, 61, 63, 64, 70, 128, INT_MAX - 63, INT_MAX - 10};
  constexpr int kTicks[] = {0, 1, 60, 61, 63, 0, 6, 0, 0, 53};
  for (size_t i = 0; i < std::size(kTimeouts); ++i) {
    ArmWithoutMonitor();
    const uint32_t id = Start(30);
    for (int tick = 0; tick < 10; ++tick) Tick();
    EXPECT_EQ(quorvel_update(id, kTimeouts[i]), id);
    EXPECT_EQ(TicksBeforeFiring(), kTicks[i]) << kTimeouts[i];
  }
}

TEST_F(WatchApi, ARefusedUpdateLeavesTheWatchInItsPlace) {
  const uint32_t first = Start(30);
  const uint32_t second = Start(30);
  for (int tick = 0; tick < 10; ++tick) Tick();
  for (const int32_t timeout : {-1, -64, INT_MIN, INT_MAX - 9, INT_MAX}) {
    EXPECT_EQ(quorvel_update(first, timeout), QUORVEL_INVALID_ID) << timeout;
  }
  for (int tick = 10; tick < 30; ++tick) EXPECT_THAT(Tick(), IsEmpty());
  EXPECT_THAT(Tick(), ElementsAre(first, second));
}

// A start that counted after it looked for a waiting monitor could be lost to it.
TEST_F(WatchApi, AStartCountsBeforeTheWakeUpAndAnEndAfterTheRegistryIsLetGo) {
  if (!UnlocksAreSeen()) GTEST_SKIP() << "this build has the locks to itself";
  const uint32_t started = QuorvelStartedCount();
  std::vector<uint32_t> counts;  // at each unlock: starts and ends since
  fakes.pthread_mutex_unlock = [&] {
    counts.push_back(QuorvelStartedCount() - started);
    counts.push_back(QuorvelEndedCount() - started);
  };
  quorvel_end(Start(60));
  fakes.pthread_mutex_unlock = nullptr;
  EXPECT_THAT(counts, ElementsAre(0, 0, 1, 0, 1, 0));  // registry, wake-up, registry
  EXPECT_EQ(QuorvelEndedCount(), started + 1);
}

TEST_F(WatchApi, EveryWatchOfBusyThreadsIsEndedOrFiresOnce) {
  constexpr uint32_t kThreads = 3;
  constexpr uint32_t kWatches = 1000;
  const uint32_t started = QuorvelStartedCount();
  std::atomic<uint32_t> running{kThreads};
  std::vector<std::thread> threads;
  for (uint32_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (uint32_t i = 0; i < kWatches; ++i) {
        const uint32_t id = Start(1 + static_cast<int32_t>(i % 3));
        quorvel_update(id, static_cast<int32_t>(i % 5));
        if (i % 4 == 0) std::this_thread::yield();
        quorvel_end(id);
      }
      --running;
    });
  }
  std::vector<uint32_t> fired;
  while (running > 0) {
    for (const uint32_t id : Tick()) fired.push_back(id);
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(QuorvelStartedCount() - started, kThreads * kWatches);
  EXPECT_EQ(QuorvelStartedCount(), QuorvelEndedCount());
  EXPECT_EQ(log_.Count("alrealy release"), static_cast<int>(fired.size()));
  std::sort(fired.begin(), fired.end());
  EXPECT_EQ(std::adjacent_find(fired.begin(), fired.end()), fired.end());
}

TEST_F(WatchApi, AChildStartsAnewWhicheverLockAnotherThreadHolds) {
  if (!UnlocksAreSeen()) GTEST_SKIP() << "this build has the locks to itself";
  const uint32_t parents = Start(20);
  const auto child = [&] {
    EXPECT_EQ(Start(10), QUORVEL_INVALID_ID);
    quorvel_init();
    EXPECT_EQ(quorvel_update(parents, 1), QUORVEL_INVALID_ID);
    EXPECT_NE(Start(10), QUORVEL_INVALID_ID);
    EXPECT_EQ(QuorvelStartedCount() - QuorvelEndedCount(), 1u);
    EXPECT_EQ(TicksBeforeFiring(), 10);
    EXPECT_EQ(TicksBeforeFiring(), kWheelSlots);
  };
  std::atomic<int> holder{0};
  std::atomic<int> held{0};
  std::atomic<int> allowed{0};
  fakes.pthread_mutex_unlock = [&] {
    if (gettid() != holder) return;
    const int lock = ++held;
    while (allowed < lock) std::this_thread::yield();
  };
  std::thread other([&] {
    holder = gettid();
    quorvel_init();
    quorvel_end(Start(60));
  });
  for (int lock = 1; lock <= 4; ++lock) {  // init, registry, wake-up, registry
    while (held < lock) std::this_thread::yield();
    EXPECT_EQ(RunInChild(child), 0) << lock;
    allowed = lock;
  }
  other.join();
  EXPECT_EQ(quorvel_update(parents, 1), parents);
}

// No fixture: a fresh process, for which this is the first init of all.
TEST(WatchApiTest, AChildForkedDuringTheFirstInitCanInitAndItsFirstIdIsZero) {
  SKIP_UNDER_EMULATION("a program cannot start itself anew");
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto run = [] {
    std::atomic<bool> creating{false};
    std::atomic<bool> forked{false};
    fakes.pthread_create = [&](void* (*)(void*)) {
      creating = true;
      while (!forked) std::this_thread::yield();
      return 0;
    };
    std::thread parent(quorvel_init);
    while (!creating) std::this_thread::yield();
    const auto child = [&] {
      forked = true;
      quorvel_init();
      EXPECT_EQ(Start(1), 0u);
      EXPECT_EQ(Start(1), 0x201u);
    };
    _exit(RunInChild(child, 5) == 0 ? 0 : 1);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

}  // namespace
