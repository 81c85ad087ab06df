#include "unwind/unwindstack_wrapper_thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string.h>

#include <chrono>
#include <thread>

#include "support/fakes.h"
#include "support/log_capture.h"

namespace {

using Entry = unwindstack_wrapper_thread;
using Clock = std::chrono::steady_clock;

constexpr int kPid = 100;

// Brings the deadline of a wait so close that it need not be waited for.
struct ShortWaits {
  ShortWaits() {
    fakes.clock_gettime = [](clockid_t clock, timespec* now) {
      EXPECT_EQ(clock, CLOCK_MONOTONIC);
      const auto since = Clock::now().time_since_epoch() - std::chrono::milliseconds(4900);
      now->tv_sec = std::chrono::duration_cast<std::chrono::seconds>(since).count();
      now->tv_nsec = std::chrono::nanoseconds(since % std::chrono::seconds(1)).count();
      return 0;
    };
  }
  ScopedFakes restore;
};

struct UnwindstackWrapperThread : testing::Test {
  ~UnwindstackWrapperThread() override { EXPECT_EQ(Entry::list_, nullptr); }

  static Entry* Create(int tid) {
    Entry* entry = Entry::get(kPid, tid, true);
    pthread_mutex_lock(&entry->entry_mutex_);
    return entry;
  }

  LogCapture log_;
};

TEST_F(UnwindstackWrapperThread, OneEntryAPairWithAReferenceAGet) {
  EXPECT_EQ(Entry::get(kPid, 1, false), nullptr);
  EXPECT_EQ(Entry::list_, nullptr);
  Entry* entry = Create(1);
  EXPECT_EQ(entry->ref_count_, 1);
  EXPECT_EQ(Entry::get(kPid, 1, true), entry);
  EXPECT_EQ(Entry::get(kPid, 1, false), entry);
  EXPECT_EQ(entry->ref_count_, 3);
  EXPECT_EQ(Entry::get(kPid + 1, 1, false), nullptr);
  for (int left = 2; left >= 0; --left) {
    EXPECT_EQ(Entry::list_, entry);
    Entry::remove(entry);
    if (left > 0) {
      EXPECT_EQ(entry->ref_count_, left);
      ASSERT_EQ(pthread_mutex_trylock(&entry->entry_mutex_), 0) << "remove unlocks the entry";
    }
  }
}

TEST_F(UnwindstackWrapperThread, RemovalAtEveryPlaceKeepsTheListWhole) {
  for (const int removed : {1, 2, 3}) {
    Entry* entries[4] = {nullptr, Create(1), Create(2), Create(3)};  // list: 3 2 1
    Entry::remove(entries[removed]);
    int expected = 3;
    Entry* previous = nullptr;
    for (Entry* entry = Entry::list_; entry != nullptr; entry = entry->next_) {
      if (expected == removed) --expected;
      EXPECT_EQ(entry->tid_, expected--);
      EXPECT_EQ(entry->prev_, previous);
      previous = entry;
    }
    for (const int tid : {1, 2, 3}) {
      if (tid != removed) Entry::remove(entries[tid]);
    }
  }
}

TEST_F(UnwindstackWrapperThread, WaitIsForEqualityAndNotForALowerBound) {
  ShortWaits short_waits;
  Entry* entry = Create(1);
  EXPECT_TRUE(entry->wait(0));
  entry->wake();
  EXPECT_TRUE(entry->wait(1));
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
  entry->wake();
  EXPECT_FALSE(entry->wait(1)) << "the counter has gone past";
  EXPECT_EQ(entry->wait_value_, 2);
  EXPECT_THAT(log_.Lines(), testing::ElementsAre(
                                LogLine{ANDROID_LOG_ERROR, "unwindstack_wrapper",
                                        std::string("pthread_cond_timedwait for value 1 failed: ") +
                                            strerror(ETIMEDOUT) + "\n",
                                        ""}));
  Entry::remove(entry);
}

TEST_F(UnwindstackWrapperThread, WakesThatDoNotReachTheValueDoNotExtendTheDeadline) {
  ShortWaits short_waits;
  Entry* entry = Create(1);
  std::atomic<bool> stop{false};
  std::thread waker([&] {
    while (!stop) {
      entry->wake();
      usleep(10000);
    }
  });
  const auto start = Clock::now();
  EXPECT_FALSE(entry->wait(-1));
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(3));
  stop = true;
  waker.join();
  Entry::remove(entry);
}

TEST_F(UnwindstackWrapperThread, TwoThreadsStepThroughTheFourValues) {
  Entry* entry = Create(1);
  std::atomic<int> handler_steps{0};
  std::thread handler([&] {
    entry->wake();
    if (entry->wait(kRendezvousStackRead)) {
      ++handler_steps;
      entry->wake();
    }
  });
  EXPECT_TRUE(entry->wait(kRendezvousContextSaved));
  EXPECT_EQ(handler_steps, 0) << "the handler stays until it is let go";
  entry->wake();
  EXPECT_TRUE(entry->wait(kRendezvousLeaving));
  EXPECT_EQ(handler_steps, 1);
  handler.join();
  Entry::remove(entry);
}

TEST_F(UnwindstackWrapperThread, OnlyTheMachineContextIsCopied) {
  Entry* entry = Create(1);
  ucontext_t context;
  memset(&context, 0x5a, sizeof(context));
  ucontext_t expected = entry->ucontext_;
  expected.uc_mcontext = context.uc_mcontext;
  entry->copy_context(&context);
  EXPECT_EQ(memcmp(&entry->ucontext_, &expected, sizeof(expected)), 0);
  Entry::remove(entry);
}

}  // namespace
