// The watch calls, the monitor and its ticks, the sleep, the recovery limit.

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>
#include <quorvel/watch.hpp>

#include <atomic>
#include <climits>
#include <thread>

#include "core/monitor_thread.h"
#include "core/recovery_limit.h"
#include "support/fakes.h"
#include "support/log_capture.h"
#include "support/test_root.h"

namespace {

using testing::ElementsAre;
using testing::ExitedWithCode;

constexpr time_t kNow = 1763315480;

uint32_t Start(int32_t timeout, std::function<void()>* function = nullptr) {
  const QuorvelCallback call = [](void* arg) { (*static_cast<std::function<void()>*>(arg))(); };
  return __quorvel_start_ex("n", timeout, function != nullptr ? call : nullptr, function, 0xf0);
}

void StartAnewInChild() {
  alarm(20);
  LogCapture log;
  fakes.pthread_create = [](void* (*)(void*)) { return EAGAIN; };
  for (int attempt = 0; attempt < 2; ++attempt) {
    EXPECT_EQ(Start(10), QUORVEL_INVALID_ID);
    EXPECT_EQ(quorvel_update(0, 10), QUORVEL_INVALID_ID);
    quorvel_end(0);
    if (attempt == 0) quorvel_init();
  }
  EXPECT_THAT(log.Lines(),
              ElementsAre("E/QUORVEL: pthread_create return fail, QuorvelManagerInit\n"));
  fakes.pthread_create = [](void* (*body)(void*)) { return body == QuorvelThreadHandle ? 0 : 1; };
  quorvel_init();
  const uint32_t id = QuorvelStartedCount() << 9;
  EXPECT_EQ(Start(1), id);
  EXPECT_EQ(QuorvelStartedCount() - QuorvelEndedCount(), 1u);
  _exit(testing::Test::HasFailure());
}

// Comes first: the first lock is that of the first init of all. A start that counted after it
// looked for a waiting monitor could be lost to it.
TEST(CoreTest, AStartCountsBeforeTheWakeUpAndAForkMayComeWhicheverLockIsHeld) {
  if (Start(60) != QUORVEL_INVALID_ID) GTEST_SKIP() << "not the first init of all";
  const ScopedFakes restore;
  std::atomic<int> held{0}, allowed{0};
  const auto hold = [&] {
    const int lock = ++held;
    while (allowed < lock) std::this_thread::yield();
  };
  uint32_t armed_at_wake_up = 0;
  fakes.pthread_create = [&](void* (*)(void*)) { return hold(), 0; };  // under the init lock
  fakes.wake_monitor = [&] { armed_at_wake_up = QuorvelStartedCount() - QuorvelEndedCount(); };
  std::thread other([&] {
    quorvel_init();
    for (QuorvelMutex* lock : {&g_registry.lock, &g_wake_up.lock}) {
      const QuorvelMutexLock guard(lock);
      hold();
    }
    quorvel_end(Start(60));
  });
  for (int lock = 1; lock <= 3; ++lock) {
    while (held < lock) std::this_thread::yield();
    const pid_t child = fork();
    if (child == 0) StartAnewInChild();
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0) << lock;
    allowed = lock;
  }
  other.join();
  EXPECT_EQ(armed_at_wake_up, 1u);
}

class Core : public testing::Test {
 protected:
  Core() { ArmWithoutMonitor(); }

  // No thread is made: the test steps the ticks. Nothing is armed, the cursor is at slot 0.
  void ArmWithoutMonitor() {
    fakes.pthread_create = [](void* (*)(void*)) { return 0; };
    quorvel_init();
    for (int32_t slot = 0; slot < kWheelSlots; ++slot) QuorvelCollectExpired(&monitor_);
    QuorvelBuildRegistry();
  }
  void Pass() { QuorvelMonitorPass(&monitor_); }

  QuorvelMonitor monitor_;
  std::string trace_;
  ScopedFakes restore_;
  LogCapture log_;
};

TEST_F(Core, AWatchFiresAfterItsTimeoutOrThatOfItsLastUpdate) {
  for (const int32_t timeout : {INT_MIN, 0, 61}) EXPECT_EQ(Start(timeout), QUORVEL_INVALID_ID);
  const struct {
    int32_t start, update;
    bool refused;
    int ticks;  // from then to the one in which it fires
  } cases[] = {{1, -1, true, 0},    {60, INT_MIN, true, 59},      {30, INT_MAX, true, 29},
               {30, 63, false, 63}, {30, INT_MAX - 1, false, 62}, {30, 70, false, 6}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.update);
    ArmWithoutMonitor();
    const uint32_t ended = QuorvelEndedCount(), id = Start(c.start);
    Pass();
    EXPECT_EQ(quorvel_update(id, c.update), c.refused ? QUORVEL_INVALID_ID : id);
    int ticks = 0;
    for (; Pass(), QuorvelEndedCount() == ended; ++ticks) ASSERT_LT(ticks, 64);
    EXPECT_EQ(ticks, c.ticks);
  }
}

TEST_F(Core, A128WatchesAreArmedAtOnceAndNodesAreUsedInTurn) {
  const uint32_t first = QuorvelStartedCount() << 9;
  for (uint32_t i = 0; i < 128; ++i) ASSERT_EQ(Start(1), first + i * 513);
  EXPECT_EQ(Start(1), QUORVEL_INVALID_ID);
  for (const uint32_t id : {first + 5 * 513, first, first, 0xfe80u}) quorvel_end(id);
  char late[80];
  snprintf(late, sizeof(late), "E/QUORVEL: quorvel_end: alrealy release id 0x%x ?\n", first);
  EXPECT_THAT(log_.Lines(), ElementsAre("E/QUORVEL: No free quorvel node\n", late,
                                        "E/QUORVEL: quorvel_end: not valid id 0xfe80\n"));
  EXPECT_EQ(Start(60) % 512, 5u);
  {
    quorvel::Watch watch("n", std::chrono::seconds(60)), moved(std::move(watch));
    EXPECT_TRUE(!watch.Update(std::chrono::seconds(1)) && moved.Update(std::chrono::seconds(1)) &&
                moved.id() % 512 == 0);
    watch = std::move(moved);
  }
  EXPECT_EQ(QuorvelStartedCount() - QuorvelEndedCount(), 127u);
}

TEST_F(Core, CallbacksRunInLinkOrderAndMayUseTheWatchCalls) {
  fakes.time = [] { return kNow; };
  uint32_t moved = 0;
  std::function<void()> on_chained = [&] { trace_ += "chained "; };
  std::function<void()> on_moved = [&] { trace_ += "moved "; };
  std::function<void()> on_first = [&] {
    trace_ += "first ";
    quorvel_end(moved);  // of the same tick: its callback is still to come
    Start(1, &on_chained);
  };
  moved = Start(5, &on_moved);
  Start(1, &on_first);
  fakes.time = [] { return kNow + 1; };
  quorvel_update(moved, 1);
  for (int i = 0; i < 2; ++i) Pass();
  const QuorvelTimeoutInfo& info = monitor_.batch[1];
  EXPECT_TRUE(info.tid == gettid() && info.start == kNow && info.flags == 0xf0);
  for (int i = 0; i < 2; ++i) Pass();
  EXPECT_EQ(trace_, "first moved chained ");
}

TEST_F(Core, AStartAfterTheLastTickKeepsTheMonitorFromWaiting) {
  EXPECT_FALSE(QuorvelCountIdleTick(&monitor_));
  quorvel_end(Start(60));
  QuorvelWaitForStart(&monitor_);  // or for ever
}

// The thread itself, in a process of its own, as it never ends.
TEST_F(Core, TheMonitorSleepsOnceATickAndWaitsAfterThreeQuietOnes) {
  const auto run = [&] {
    alarm(20);
    std::atomic<int> entered{0}, allowed{8};
    fakes.sleep = [&](unsigned seconds) {
      char name[16];
      pthread_getname_np(pthread_self(), name, sizeof(name));
      trace_ += name + std::to_string(seconds) + " ";
      const int call = ++entered;
      while (allowed < call) std::this_thread::yield();
      return call <= 2 ? 1u : 0u;  // both of the first tick are cut short
    };
    std::function<void()> callback = [&] {
      sigset_t mask;
      pthread_sigmask(SIG_BLOCK, nullptr, &mask);
      trace_ += sigismember(&mask, SIGXFSZ) == 1 ? "fires " : "could die of a limit ";
    };
    quorvel_init();
    Start(4, &callback);
    std::thread(QuorvelThreadHandle, nullptr).detach();
    while (entered < 8) std::this_thread::yield();
    usleep(100000);
    if (entered == 8) trace_ += "waits ";
    Start(1, &callback);
    allowed = 10;
    while (entered < 11) std::this_thread::yield();
    fputs(trace_.c_str(), stderr);
    _exit(0);
  };
  EXPECT_EXIT(run(), ExitedWithCode(0),
              testing::Eq("quorvel1 quorvel1 quorvel1 quorvel1 quorvel1 quorvel1 fires "
                          "quorvel1 quorvel1 waits quorvel1 quorvel1 fires quorvel1 "));
}

TEST_F(Core, ASleepGoesByTheBootTimeClockInChunksOfLessThanTenSeconds) {
  const struct {
    unsigned long seconds;
    std::vector<timespec> readings;  // of the clock, one a call
    std::vector<useconds_t> chunks;
  } cases[] = {{0, {{5, 7}, {5, 7}}, {}},
               {10, {{5, 0}, {5, 1000}, {14, 900000001}}, {9999999}},
               // Interrupted, close to its end, suspended beyond it.
               {25,
                {{5, 0}, {5, 1000}, {9, 250000000}, {29, 900000000}, {35, 0}},
                {4999999, 750000, 100000}},
               {ULONG_MAX, {{77, 5}, {77, 6}, {LONG_MAX, 6}}, {9999999}}};
  for (const auto& c : cases) {
    size_t reading = 0;
    std::vector<useconds_t> chunks;
    fakes.clock_gettime = [&](clockid_t clock, timespec* now) {
      *now = clock == CLOCK_BOOTTIME ? c.readings.at(reading++) : timespec();
      return 0;
    };
    fakes.usleep = [&](useconds_t micros) { return chunks.push_back(micros), 0; };
    quorvel_clock_sleep(c.seconds);
    EXPECT_EQ(chunks, c.chunks) << c.seconds;
    EXPECT_EQ(reading, c.readings.size()) << c.seconds;
  }
}

TEST(CoreTest, FiveExitsAreFreeAndThenOneEachHalfHour) {
  const ScopedFakes restore;
  test_root::MakeEmptyDir("/dev/__properties__/");
  fakes.time = [] { return kNow; };
  fakes.getprogname = [] { return "/vendor/bin/a"; };
  // Records, and what they become.
  const std::pair<std::string, std::string> cases[] = {{"7", "1,1763315480"},
                                                       {"3abc,99def", "4,1763315480"},
                                                       {"4,1763315479", "5,1763315480"},
                                                       {"5,1763313680", "6,1763315480"},
                                                       {"5,1763313681", "5,1763313681"},
                                                       {"2147483647,0", "2147483647,1763315480"},
                                                       {"-1,0", "-1,0"}};
  for (const auto& [before, after] : cases) {
    test_root::SetProperty("odm.quorvel.rec.97", before);
    EXPECT_EXIT((LetLogReachDeathTest(), QuorvelRecover(true), _exit(7)),
                ExitedWithCode(after == before ? 7 : 1),
                " I QUORVEL : quorvel recovery limit count:-?[0-9]+ last happen time:[0-9]+\n");
    EXPECT_EQ(test_root::PropertyText("odm.quorvel.rec.97"), after);
  }
  EXPECT_TRUE(QuorvelRecoveryAllowed({5, LONG_MIN}, kNow));
  EXPECT_FALSE(QuorvelRecoveryAllowed({5, LONG_MAX}, kNow));
  for (const std::string value : {"FALSE", "falsehood", "false"}) {
    test_root::SetProperty("ro.quorvel.rec", value);
    EXPECT_EXIT((QuorvelRecover(false), _exit(7)), ExitedWithCode(value == "false" ? 7 : 1), "");
  }
  EXPECT_EQ(QuorvelRecoveryRecordName(false, "abcdefghij"), "quorvel.s.rec.180004458");
}

}  // namespace
