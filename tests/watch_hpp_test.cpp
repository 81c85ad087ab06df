// C++ watches whose callables are called, ended, dropped, moved and forked, in every order.

#include <dlfcn.h>
#include <quorvel/watch.hpp>

#include <array>
#include <future>
#include <thread>

#include "core/monitor_thread.h"
#include "support/library_test.h"

namespace {

using quorvel::Flags;
using quorvel::Watch;
using std::chrono::seconds;
using State = Watch::State;

constexpr seconds kSecond{1};

// The test is the monitor: it steps the ticks, or has another thread step them.
class WatchHpp : public LibraryTest {
 protected:
  WatchHpp() {
    InitWithoutMonitor();
    for (int32_t slot = 0; slot < kWheelSlots; ++slot) QuorvelCollectExpired(&monitor_);
  }

  // Every watch of one second that is armed now expires.
  void Expire() {
    QuorvelMonitorPass(&monitor_);
    QuorvelMonitorPass(&monitor_);
  }

  // From now on the incidents of watches with a log are dropped.
  void SpendRateLimit() {
    fakes.time = [] { return time_t{2'000'000'000}; };
    for (int i = 0; i < 7; ++i) {
      const Watch watch("spent", kSecond, quorvel::kLog);
      Expire();
    }
  }

  // The callables that hold a copy of life_.
  long Alive() const { return life_.use_count() - 1; }

  const std::shared_ptr<int> life_ = std::make_shared<int>(0);
  QuorvelMonitor monitor_;
};

TEST_F(WatchHpp, ACallableEndedInTimeIsDestroyedAndNotCalled) {
  Watch watch("n", kSecond, [life = life_] { ++*life; });
  EXPECT_EQ(watch.state(), State::kArmed);
  EXPECT_EQ(Alive(), 1);
  EXPECT_EQ(watch.End(), State::kEnded);
  EXPECT_EQ(Alive(), 0);
  Expire();
  EXPECT_EQ(*life_, 0);
  EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(WatchHpp, ACallableIsCalledOnceAndKeptUntilTheEnd) {
  Watch watch("n", kSecond, [life = life_] { ++*life; });
  Expire();
  EXPECT_TRUE(watch.fired());
  EXPECT_EQ(watch.state(), State::kCalled);
  EXPECT_EQ(Alive(), 1);
  EXPECT_FALSE(watch.Update(kSecond));
  EXPECT_EQ(watch.End(), State::kFired);
  EXPECT_TRUE(watch.fired());
  EXPECT_EQ(Alive(), 0);
  EXPECT_EQ(*life_, 1);
  EXPECT_FALSE(log_.Has("alrealy release"));
}

TEST_F(WatchHpp, ALateCallFindsNeitherItsOwnCallableNorTheNextOneInItsPlace) {
  Watch freed, replaced, next;
  Watch first("first", kSecond, [&] {  // the others were collected in the same tick
    EXPECT_EQ(freed.End(), State::kExpired);
    EXPECT_EQ(replaced.End(), State::kExpired);
    EXPECT_EQ(Alive(), 0);
    next = Watch("next", kSecond, [life = life_] { *life = 3; });
  });
  freed = Watch("freed", kSecond, [life = life_.get()] { *life = 1; });
  replaced = Watch("replaced", kSecond, [life = life_] { *life = 2; });
  Expire();
  EXPECT_EQ(*life_, 0);
  EXPECT_EQ(next.state(), State::kArmed);
}

TEST_F(WatchHpp, AnEndWaitsForACallableThatRunsWhereverTheWatchWasMovedMeanwhile) {
  std::promise<void> begun, open;
  std::atomic<bool> returned{false};
  Watch watch("n", kSecond, [&, life = life_] {
    begun.set_value();
    open.get_future().wait();
    usleep(20000);  // an End that does not wait is through by now
    EXPECT_EQ(life.use_count(), 2);
    returned = true;
  });
  std::thread monitor([this] { Expire(); });
  begun.get_future().wait();
  Watch moved(std::move(watch));
  EXPECT_EQ(watch.End(), State::kNone);  // NOLINT(bugprone-use-after-move): defined to be empty
  EXPECT_TRUE(moved.fired());
  open.set_value();
  errno = EDOM;
  EXPECT_EQ(moved.End(), State::kFired);
  EXPECT_EQ(errno, EDOM);
  EXPECT_TRUE(returned);
  EXPECT_EQ(Alive(), 0);
  monitor.join();
}

TEST_F(WatchHpp, ACallableMayReplaceItsOwnWatchAndOutlivesItsCall) {
  Watch watch;
  watch = Watch("n", kSecond, [&watch, this, life = life_] {
    watch = Watch("again", kSecond, [life] { *life += 10; });
    EXPECT_EQ(Alive(), 2);
    ++*life;
  });
  Expire();
  EXPECT_EQ(watch.state(), State::kArmed);
  Expire();
  EXPECT_EQ(*life_, 11);
  EXPECT_EQ(watch.End(), State::kFired);
  EXPECT_EQ(Alive(), 0);
}

TEST_F(WatchHpp, AnAssignmentEndsTheWatchThatItReplaces) {
  Watch watch("old", kSecond, [life = life_] { *life = 1; });
  watch = Watch("new", kSecond, [life = life_] { *life = 2; });
  EXPECT_EQ(Alive(), 1);
  Expire();
  EXPECT_EQ(*life_, 2);
}

TEST_F(WatchHpp, AChildOfAForkDestroysItsCopyAndEndsNothing) {
  Watch watch("n", seconds(2), [life = life_] { ++*life; });
  RunInChild([&] {
    quorvel_init();
    const Watch own("own", seconds(60), [] {});
    log_.Clear();
    EXPECT_FALSE(watch.Update(kSecond));
    EXPECT_EQ(watch.End(), State::kNone);
    EXPECT_EQ(Alive(), 0);
    EXPECT_TRUE(log_.Lines().empty());
    EXPECT_EQ(own.state(), State::kArmed);
  });
  EXPECT_EQ(Alive(), 1);
  Expire();
  Expire();
  EXPECT_EQ(*life_, 1);
}

TEST_F(WatchHpp, AChildDoesNotWaitForACallableThatRanInTheParent) {
  std::promise<void> begun, open;
  Watch watch("n", kSecond, [&, life = life_] {
    begun.set_value();
    open.get_future().wait();
  });
  std::thread monitor([this] { Expire(); });
  begun.get_future().wait();
  RunInChild([&] {
    EXPECT_EQ(watch.End(), State::kNone);
    EXPECT_EQ(Alive(), 1) << "half-run";
    Watch own("own", kSecond, [life = life_] { ++*life; });
    EXPECT_EQ(own.state(), State::kRefused);
  });
  open.set_value();
  monitor.join();
}

TEST_F(WatchHpp, AForkFromTheCallableLeavesBothSidesTheirCopy) {
  Watch watch;
  watch = Watch("n", kSecond, [&, life = life_] {
    RunInChild([&] {
      EXPECT_EQ(watch.End(), State::kNone);
      EXPECT_EQ(life.use_count(), 2) << "it runs in the child as well";
    });
  });
  Expire();
  EXPECT_EQ(watch.End(), State::kFired);
  EXPECT_EQ(Alive(), 0);
}

TEST_F(WatchHpp, ATimeoutOutsideItsRangeIsRefusedHoweverLarge) {
  Watch armed("n", kSecond);
  for (const int64_t count : {int64_t{0}, int64_t{-1}, int64_t{61}, (int64_t{1} << 32) + 1}) {
    Watch watch("n", seconds(count), [life = life_] { ++*life; });
    EXPECT_EQ(watch.state(), State::kRefusedTimeout) << count;
    EXPECT_EQ(Watch("n", seconds(count)).state(), State::kRefusedTimeout) << count;
    EXPECT_FALSE(armed.Update(seconds(count))) << count;
    EXPECT_EQ(watch.End(), State::kRefusedTimeout);
  }
  EXPECT_EQ(Alive(), 0);
  Expire();
  EXPECT_FALSE(armed.Update(kSecond)) << "a refused update moved the deadline";
}

TEST_F(WatchHpp, ARefusedStartDestroysItsCallableAndFreesItsBlock) {
  std::vector<Watch> full(kPoolSize);
  for (Watch& watch : full) watch = Watch("n", seconds(60));
  for (size_t i = 0; i <= quorvel::detail::kCallableBlocks; ++i) {
    const Watch watch("n", kSecond, [life = life_] { ++*life; });
    ASSERT_EQ(watch.state(), State::kRefused);
  }
  EXPECT_EQ(Alive(), 0);
}

TEST_F(WatchHpp, ExpiredWatchesThatNobodyEndsUseUpTheBlocksUntilOneIsEnded) {
  std::vector<Watch> held;
  for (size_t i = 0; i < quorvel::detail::kCallableBlocks; ++i) {
    if (i % kPoolSize == 0) Expire();
    held.emplace_back("n", kSecond, [life = life_] { ++*life; });
  }
  Expire();
  Watch watch("n", kSecond, [life = life_] { ++*life; });
  EXPECT_EQ(watch.state(), State::kRefusedCallable);
  held.pop_back();
  watch = Watch("n", kSecond, [life = life_] { ++*life; });
  EXPECT_EQ(watch.state(), State::kArmed);
  EXPECT_EQ(*life_, static_cast<int>(quorvel::detail::kCallableBlocks));
}

class WatchHppPlace : public WatchHpp {
 protected:
  template <size_t kBytes, size_t kAlignment>
  bool RunsInTheTable() {
    struct Callable {
      void operator()() const { *where = this; }
      const void** where;
      std::shared_ptr<int> life;
      alignas(kAlignment) std::array<char, kBytes - sizeof(where) - sizeof(life)> filling;
    };
    const void* where = nullptr;
    const Watch watch("n", kSecond, Callable{&where, life_, {}});
    Expire();
    EXPECT_EQ(reinterpret_cast<uintptr_t>(where) % alignof(Callable), 0u);
    const auto* const table = reinterpret_cast<const char*>(&quorvel::detail::g_callables);
    return where >= table && where < table + sizeof(quorvel::detail::g_callables);
  }
};

TEST_F(WatchHppPlace, OfACallableIsAllocatedOnlyIfItIsLargeOrOveraligned) {
  EXPECT_TRUE((RunsInTheTable<48, 8>()));
  EXPECT_FALSE((RunsInTheTable<49, 8>()));
  EXPECT_FALSE((RunsInTheTable<32, 64>()));
  EXPECT_EQ(Alive(), 0);
}

TEST_F(WatchHpp, AnEmptyFunctionCountsAsNoCallable) {
  Watch function("n", kSecond, std::function<void()>());
  Watch pointer("n", kSecond, static_cast<void (*)()>(nullptr));
  Expire();
  EXPECT_FALSE(function.fired() || pointer.fired());
  EXPECT_EQ(function.End(), State::kEnded);
}

TEST_F(WatchHpp, TheCallbackOfCGetsItsArgument) {
  int calls = 0;
  const Watch watch(
      "n", kSecond, [](void* arg) { ++*static_cast<int*>(arg); }, &calls);
  Expire();
  EXPECT_EQ(calls, 1);
}

TEST_F(WatchHpp, FlagsReachTheLibraryAndOnlyTheirOwnTypeConverts) {
  static_assert(std::is_convertible_v<decltype(QUORVEL_FLAG_LOG), Flags>);
  static_assert(!std::is_convertible_v<bool, Flags> && !std::is_convertible_v<int, Flags>);
  static_assert((quorvel::kLog | QUORVEL_FLAG_SYSTRACE) == Flags(9u));
  const Watch watch("n", seconds(60), quorvel::kRecovery | quorvel::kBacktrace);
  const QuorvelMutexLock lock(&g_registry.lock);
  EXPECT_EQ(QuorvelFindNode(watch.id())->flags, 6u);
}

class WatchHppPlugin : public WatchHpp {
 protected:
  void StartThereAndEndAnywhere(void* plugin) {
    ASSERT_NE(plugin, nullptr) << dlerror();
    const auto start =
        reinterpret_cast<void (*)(Watch*, std::atomic<int>*)>(dlsym(plugin, "start_watch"));
    const auto end = reinterpret_cast<int (*)(Watch*)>(dlsym(plugin, "end_watch"));
    std::atomic<int> calls{0};
    Watch theirs, in_time, own("own", kSecond, [life = life_] { ++*life; });
    start(&theirs, &calls);
    Expire();
    EXPECT_EQ(calls, 1);
    start(&in_time, &calls);
    RunInChild([&] { EXPECT_EQ(in_time.End(), State::kNone); });
    EXPECT_EQ(theirs.End(), State::kFired);
    EXPECT_EQ(in_time.End(), State::kEnded);
    EXPECT_EQ(end(&own), static_cast<int>(State::kFired));
    EXPECT_EQ(Alive(), 0);
  }
};

TEST_F(WatchHppPlugin, AnObjectThatHidesItsSymbols) {
  StartThereAndEndAnywhere(dlopen(WATCH_PLUGIN_HIDDEN, RTLD_NOW | RTLD_LOCAL));
}

TEST_F(WatchHppPlugin, AnObjectWhoseFunctionsAreReplacedByAnothers) {
  StartThereAndEndAnywhere(dlopen(WATCH_PLUGIN_DEFAULT, RTLD_NOW | RTLD_GLOBAL));
  StartThereAndEndAnywhere(dlopen(WATCH_PLUGIN_INTERPOSED, RTLD_NOW | RTLD_GLOBAL));
}

// A monitor that ticks without a pause, and three threads that start watches, whose callables may
// run at any moment of what the owners do. Every eighth watch is one that the rate limit drops.
class WatchHppRace : public WatchHpp {
 protected:
  static constexpr int kOwners = 3, kTurns = 60, kDropped = 8;

  void Race(void (*use)(Watch watch)) {
    SpendRateLimit();
    std::thread monitor([this] {
      while (!stop_) QuorvelMonitorPass(&monitor_);
    });
    std::vector<std::thread> owners;
    for (int owner = 0; owner < kOwners; ++owner) {
      owners.emplace_back([=] {
        for (int turn = 0; turn < kTurns; ++turn) UseOne(turn, owner * turn % 8, use);
      });
    }
    for (std::thread& owner : owners) owner.join();
    stop_ = true;
    monitor.join();
    EXPECT_EQ(calls_, calls_before_the_end_);
    EXPECT_EQ(Alive(), 0);
  }

 private:
  void UseOne(int turn, int delay, void (*use)(Watch watch)) {
    const Flags flags = turn % kDropped == 0 ? quorvel::kLog : Flags();
    std::atomic<int> called{0};  // gone after this turn
    Watch watch(
        "n", kSecond, [this, &called, life = life_] { ++called, ++calls_; }, flags);
    for (int i = 0; i < delay; ++i) std::this_thread::yield();
    use(std::move(watch));
    EXPECT_LE(called, 1);
    EXPECT_TRUE(called == 0 || turn % kDropped != 0);
    calls_before_the_end_ += called;
  }

  std::atomic<bool> stop_{false};
  std::atomic<int> calls_{0}, calls_before_the_end_{0};
};

// Gives up early enough that some watches are called after it, and some before.
void AwaitCall(const Watch& watch) {
  constexpr int kYields = 30;
  for (int i = 0; i < kYields && !watch.fired(); ++i) std::this_thread::yield();
}

TEST_F(WatchHppRace, EndsAroundTheCall) {
  Race([](Watch watch) {
    AwaitCall(watch);
    const bool was_called = watch.fired();
    const State state = watch.End();
    EXPECT_TRUE(!was_called || state == State::kFired);
    EXPECT_EQ(watch.fired(), state == State::kFired);
  });
}

TEST_F(WatchHppRace, UpdatesUntilItIsTooLate) {
  Race([](Watch watch) {
    for (int i = 0; i < 4 && watch.Update(kSecond); ++i) AwaitCall(watch);
  });
}

TEST_F(WatchHppRace, Moves) {
  Race([](Watch watch) {
    for (int i = 0; i < 20; ++i) {
      Watch other(std::move(watch));
      AwaitCall(other);
      watch = std::move(other);
    }
  });
}

TEST_F(WatchHppRace, ForksAroundTheCall) {
  Race([](Watch watch) {
    AwaitCall(watch);
    RunInChild([&] { EXPECT_EQ(watch.End(), State::kNone); });
  });
}

TEST_F(WatchHppRace, CallablesThatEndTheirOwnAndAnothersWatch) {
  Race([](Watch watch) {
    std::atomic<bool> assigned{false}, ended{false};
    Watch self;
    self = Watch("self", kSecond, [&] {
      while (!assigned) std::this_thread::yield();
      watch.End();
      self.End();
      ended = true;
    });
    assigned = true;
    while (!ended) std::this_thread::yield();
  });
}

}  // namespace
