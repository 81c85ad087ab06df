// The watch calls and the monitor's ticks, which the test steps itself; the sleep; the recovery
// limit.

#include <android-base/stringprintf.h>
#include <limits.h>

#include <thread>

#include "core/monitor_thread.h"
#include "core/recovery_limit.h"
#include "support/library_test.h"

namespace {

using android::base::StringPrintf;
using testing::ElementsAre;

constexpr time_t kNow = 1763315480;
constexpr uint32_t kFlags = 0xf0;  // none that has an effect

// No thread is made. Nothing is armed at first, the cursor is at slot 0.
class Core : public LibraryTest {
 protected:
  Core() {
    InitWithoutMonitor();
    for (int32_t slot = 0; slot < kWheelSlots; ++slot) QuorvelCollectExpired(&monitor_);
    QuorvelBuildRegistry();
    log_.Clear();
  }

  static std::string ReleasedAlready(uint32_t id) {
    return StringPrintf("E/QUORVEL: quorvel_end: alrealy release id 0x%x ?\n", id);
  }

  void Pass() { QuorvelMonitorPass(&monitor_); }
  // The number of the tick, from 1 on, in which the next watch fires; 0 if none does in one turn.
  int TicksUntilOneFires() {
    for (int tick = 1; tick <= kWheelSlots; ++tick) {
      if (Pass(), monitor_.count > 0) return tick;
    }
    return 0;
  }

  QuorvelMonitor monitor_;
  std::string called_;
};

TEST_F(Core, AWatchFiresBetweenItsTimeoutAndASecondMore) {
  for (const int32_t timeout : {1, 2, 59, 60}) {
    Start(timeout);
    EXPECT_EQ(TicksUntilOneFires(), timeout + 1);
    EXPECT_EQ(Armed(), 0u);
  }
}

TEST_F(Core, AStartOutsideOneToSixtySecondsIsRefusedSilently) {
  for (const int32_t timeout : {INT_MIN, -1, 0, 61, INT_MAX}) {
    EXPECT_EQ(Start(timeout), QUORVEL_INVALID_ID) << timeout;
  }
  EXPECT_EQ(Armed(), 0u);
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(Core, AnUpdateCountsFromNowAndWrapsAroundTheWheel) {
  const std::pair<int32_t, int> cases[] = {{0, 1},  {1, 2},  {60, 61},         {63, 64},
                                           {64, 1}, {70, 7}, {INT_MAX - 5, 59}};
  for (const auto& [timeout, ticks] : cases) {
    SCOPED_TRACE(timeout);
    QuorvelBuildRegistry();
    const uint32_t id = Start(30);
    for (int i = 0; i < 5; ++i) Pass();
    EXPECT_EQ(quorvel_update(id, timeout), id);
    EXPECT_EQ(TicksUntilOneFires(), ticks);
  }
}

TEST_F(Core, ARefusedUpdateLeavesTheWatchAsItWas) {
  const uint32_t id = Start(30);
  Pass();  // the cursor is at 1 now: one more than INT_MAX does not fit
  for (const int32_t timeout : {-1, INT_MIN, INT_MAX}) {
    EXPECT_EQ(quorvel_update(id, timeout), QUORVEL_INVALID_ID) << timeout;
  }
  EXPECT_EQ(TicksUntilOneFires(), 30);
  EXPECT_FALSE(log_.Has("id 0x"));
}

TEST_F(Core, AnOldIdNeitherMovesNorEndsTheNextWatchOfItsNode) {
  for (int i = 1; i < kPoolSize; ++i) Start(60);
  const uint32_t old = Start(30);
  quorvel_end(old);
  const uint32_t id = Start(30);
  ASSERT_TRUE(id % 512 == old % 512 && id != old);
  EXPECT_EQ(quorvel_update(old, 5), QUORVEL_INVALID_ID);
  quorvel_end(old);
  EXPECT_THAT(log_.Lines(), ElementsAre(ReleasedAlready(old)));
  EXPECT_EQ(TicksUntilOneFires(), 31);
}

TEST_F(Core, AnIdOutsideThePoolIsRefused) {
  Start(60);
  for (const uint32_t id : {0xfe80u, 0x80u, 0x1ffu, QUORVEL_INVALID_ID}) {
    EXPECT_EQ(quorvel_update(id, 5), QUORVEL_INVALID_ID);
    quorvel_end(id);
  }
  EXPECT_THAT(log_.Lines("E/QUORVEL: quorvel_end: not valid id 0x"),
              ElementsAre("fe80\n", "80\n", "1ff\n", "ffffffff\n"));
  EXPECT_EQ(Armed(), 1u);
}

TEST_F(Core, AnEndedWatchIsGoneAtOnceAndEndedOnce) {
  const uint32_t id = Start(1);
  quorvel_end(id);
  EXPECT_EQ(Armed(), 0u);
  for (const uint32_t gone : {id, 0u}) {  // 0: the first id of all, and what a cleared node holds
    EXPECT_EQ(quorvel_update(gone, 1), QUORVEL_INVALID_ID);
    quorvel_end(gone);
  }
  EXPECT_THAT(log_.Lines(), ElementsAre(ReleasedAlready(id), ReleasedAlready(0)));
  EXPECT_EQ(Armed(), 0u);
  EXPECT_EQ(TicksUntilOneFires(), 0);
}

TEST_F(Core, AnIdIsMadeOfTheNodeAndTheStartsBeforeIt) {
  for (const uint32_t started : {0u, 1u, 0x7fffffu, 0xffffffffu}) {
    QuorvelBuildRegistry();
    g_registry.started = g_registry.ended = started;
    EXPECT_EQ(Start(60), started << 9);
    EXPECT_EQ(Start(60), ((started + 1) << 9) + 1);
  }
}

TEST_F(Core, A129thWatchIsRefused) {
  for (int i = 0; i < 128; ++i) ASSERT_NE(Start(60), QUORVEL_INVALID_ID);
  EXPECT_EQ(Start(60), QUORVEL_INVALID_ID);
  EXPECT_THAT(log_.Lines(), ElementsAre("E/QUORVEL: No free quorvel node\n"));
  EXPECT_EQ(Armed(), 128u);
}

TEST_F(Core, TheRecordIsOfTheStartCallAndItsThread) {
  fakes.time = [] { return kNow; };
  int tid = 0;
  uint32_t id = 0;
  Function callback = [] {};
  std::thread([&] { tid = gettid(), id = Start(9, &callback, kFlags); }).join();
  fakes.time = [] { return kNow + 4; };
  quorvel_update(id, 1);
  TicksUntilOneFires();
  const QuorvelTimeoutInfo& info = monitor_.batch[0];
  EXPECT_EQ(info.id, id);
  EXPECT_EQ(info.tid, tid);
  EXPECT_EQ(info.start, kNow);
  EXPECT_STREQ(info.name, "n");
  EXPECT_EQ(info.flags, kFlags);
  EXPECT_EQ(info.arg, &callback);
}

TEST_F(Core, CallbacksRunInTheOrderInWhichTheirWatchesWereLinked) {
  Function first = [&] { called_ += "first "; };
  Function second = [&] { called_ += "second "; };
  Function moved = [&] { called_ += "moved "; };
  const uint32_t id = Start(5, &moved);
  Start(1, &first);
  Start(1, &second);
  quorvel_update(id, 1);
  TicksUntilOneFires();
  EXPECT_EQ(called_, "first second moved ");
}

TEST_F(Core, ACollectedWatchCannotBeMovedOrEndedAnyMore) {
  uint32_t own = 0, next = 0;
  Function on_next = [&] { called_ += "next "; };
  Function on_own = [&] {
    for (const uint32_t id : {own, next}) {
      EXPECT_EQ(quorvel_update(id, 9), QUORVEL_INVALID_ID);
      quorvel_end(id);
    }
  };
  own = Start(1, &on_own);
  next = Start(1, &on_next);
  TicksUntilOneFires();
  EXPECT_EQ(called_, "next ");
  EXPECT_TRUE(log_.Has(ReleasedAlready(own)) && log_.Has(ReleasedAlready(next)));
  EXPECT_EQ(Armed(), 0u);
}

TEST_F(Core, AStartCountsBeforeItLooksForAWaitingMonitor) {
  uint32_t armed_then = 0;
  fakes.wake_monitor = [&] { armed_then = Armed(); };
  Start(60);
  EXPECT_EQ(armed_then, 1u);
}

TEST_F(Core, AStartAfterTheLastTickKeepsTheMonitorFromWaiting) {
  EXPECT_FALSE(QuorvelCountIdleTick(&monitor_));
  quorvel_end(Start(60));
  QuorvelWaitForStart(&monitor_);  // or for ever
}

TEST_F(Core, TheMonitorIsQuietOnlyWithoutStartsAndArmedWatches) {
  const auto ticks_until_it_waits = [&] {
    int ticks = 1;
    while (ticks < 9 && !QuorvelCountIdleTick(&monitor_)) ++ticks;
    return ticks;
  };
  ticks_until_it_waits();
  quorvel_end(Start(60));
  EXPECT_EQ(ticks_until_it_waits(), 4);
  const uint32_t id = Start(60);
  EXPECT_EQ(ticks_until_it_waits(), 9);
  quorvel_end(id);
  EXPECT_EQ(ticks_until_it_waits(), 3);
}

// Both records forbid an exit; the log tells which of them was read.
TEST_F(Core, AProgramWhosePathBeginsWithVendorHasTheVendorsProperties) {
  const std::pair<const char*, bool> paths[] = {{"/vendor/bin/x", true},   {"/vendor", true},
                                                {"/vendorx/bin/a", true},  {"/vendo", false},
                                                {"/system/vendor", false}, {"", false}};
  fakes.getprogname = [] { return "a"; };
  test_root::SetProperty("odm.quorvel.rec.97", "-1,5");
  test_root::SetProperty("quorvel.s.rec.97", "-2,5");
  for (const auto& [path, is_vendor] : paths) {
    fakes.executable_path = [p = path] { return p; };
    quorvel_init();
    Start(1, nullptr, QUORVEL_FLAG_RECOVERY);
    TicksUntilOneFires();
    EXPECT_TRUE(log_.Has(is_vendor ? "count:-1" : "count:-2")) << path;
    log_.Clear();
  }
}

// The readings of the boot-time clock, one a call, and the chunks that are slept.
class CoreSleep : public Core {
 protected:
  using Chunks = std::vector<useconds_t>;
  Chunks Sleep(unsigned long seconds, std::vector<timespec> readings) {
    size_t reading = 0;
    Chunks chunks;
    fakes.clock_gettime = [&](clockid_t clock, timespec* now) {
      *now = clock == CLOCK_BOOTTIME ? readings.at(reading++) : timespec();
      return 0;
    };
    fakes.usleep = [&](useconds_t micros) { return chunks.push_back(micros), 0; };
    quorvel_clock_sleep(seconds);
    EXPECT_EQ(reading, readings.size());
    return chunks;
  }
};

TEST_F(CoreSleep, ChunksAreShorterThanTenSecondsAndTheLastTenthIsLeftOut) {
  EXPECT_EQ(Sleep(25, {{5, 0}, {5, 0}, {10, 1000}, {19, 999999000}, {29, 900000001}}),
            Chunks({5000000, 9999999, 1}));
}

TEST_F(CoreSleep, AnInterruptedChunkIsMadeUp) {
  EXPECT_EQ(Sleep(3, {{5, 0}, {5, 0}, {6, 250000000}, {7, 900000000}, {8, 0}}),
            Chunks({3000000, 1750000, 100000}));
}

TEST_F(CoreSleep, TimeSpentSuspendedCounts) {
  EXPECT_EQ(Sleep(5, {{5, 9}, {5, 9}, {10, 10}}), Chunks({5000000}));
  EXPECT_EQ(Sleep(5, {{5, 9}, {5, 9}, {777, 0}}), Chunks({5000000}));
}

TEST_F(CoreSleep, MoreSecondsThanTheClockHasEndWithIt) {
  EXPECT_EQ(Sleep(ULONG_MAX, {{77, 5}, {77, 6}, {LONG_MAX, 6}}), Chunks({9999999}));
}

class CoreRecovery : public LibraryTest {
 protected:
  CoreRecovery() {
    fakes.time = [] { return kNow; };
    fakes.getprogname = [] { return "/vendor/bin/a"; };
  }
  // Whether a recovery ends the process, at once; and what the record is then.
  void ExpectExit(bool ends, bool is_vendor = false) {
    const auto recover = [&] {
      atexit([] { fputs("an exit handler of the host ran", stderr); });
      // Not by standard error itself: that is a file here, which the log leaves alone.
      __android_log_set_logger([](const auto* message) { fputs(message->message, stderr); });
      QuorvelRecover(is_vendor);
      fputs("goes on", stderr);
      _exit(7);
    };
    const char* const end = ends ? "exit process from quorvel$" : "goes on$";
    EXPECT_EXIT(recover(), testing::ExitedWithCode(ends ? 1 : 7), end);
  }
  void ExpectRecord(const std::string& before, const std::string& after) {
    SCOPED_TRACE(before);
    test_root::SetProperty(kRecord, before);
    ExpectExit(after != before);
    EXPECT_EQ(test_root::PropertyText(kRecord), after);
  }

  static constexpr char kRecord[] = "quorvel.s.rec.97";
};

TEST_F(CoreRecovery, FiveExitsAreFree) {
  ExpectExit(true);
  EXPECT_EQ(test_root::PropertyText(kRecord), "1,1763315480");
  ExpectRecord("4,1763315479", "5,1763315480");
  ExpectRecord("5,1763315479", "5,1763315479");
}

TEST_F(CoreRecovery, ThenOneEachHalfHour) {
  ExpectRecord("5,1763313680", "6,1763315480");
  ExpectRecord("5,1763313681", "5,1763313681");
  ExpectRecord("2147483647,0", "2147483647,1763315480");
  EXPECT_TRUE(QuorvelRecoveryAllowed({5, LONG_MIN}, kNow));
  EXPECT_FALSE(QuorvelRecoveryAllowed({5, LONG_MAX}, kNow));
}

TEST_F(CoreRecovery, ADamagedRecordReadsAsFarAsItIsOne) {
  ExpectRecord("7", "1,1763315480");
  ExpectRecord("x,1763315480", "1,1763315480");
  ExpectRecord("3abc,99def", "4,1763315480");
  ExpectRecord("-1,0", "-1,0");
  ExpectRecord("5,1763315479,0", "5,1763315479,0");
}

TEST_F(CoreRecovery, TheSwitchOfItsOwnSideAloneForbidsIt) {
  const char* const names[] = {"ro.quorvel.rec", "ro.vendor.quorvel.rec"};
  for (const bool is_vendor : {false, true}) {
    test_root::MakeEmptyDir("/dev/__properties__/");
    test_root::SetProperty(names[is_vendor], "false");
    ExpectExit(false, is_vendor);
    ExpectExit(true, !is_vendor);
  }
  for (const std::string value : {"FALSE", "falsehood", "0", ""}) {
    test_root::SetProperty(names[0], value);
    ExpectExit(true);
  }
}

TEST_F(CoreRecovery, ARefusalSaysHowOftenAndWhen) {
  test_root::SetProperty(kRecord, "7,1763315400");
  QuorvelRecover(false);
  EXPECT_THAT(log_.Lines(),
              ElementsAre("I/QUORVEL: quorvel recovery limit count:7 last happen time:1763315400",
                          "E/QUORVEL: Skip exit, because it has recovery more than 5 times\n"));
}

TEST_F(CoreRecovery, TheRecordIsNamedAfterTheProgram) {
  const std::pair<const char*, const char*> programs[] = {{"abcdefghij", "quorvel.s.rec.180004458"},
                                                          {"", "quorvel.s.rec.170931438"},
                                                          {nullptr, "quorvel.s.rec.170931438"}};
  for (const auto& [program, record] : programs) {
    test_root::MakeEmptyDir("/dev/__properties__/");
    fakes.getprogname = [p = program] { return p; };
    ExpectExit(true);
    EXPECT_EQ(test_root::PropertyText(record), "1,1763315480");
  }
  EXPECT_EQ(QuorvelRecoveryRecordName(true, "\xff\xfe"), "odm.quorvel.rec.4334");
}

}  // namespace
