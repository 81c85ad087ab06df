#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvel/quorvel.h>
#include <unistd.h>

#include <climits>
#include <functional>
#include <vector>

#include "support/fakes.h"

namespace {

constexpr int64_t kSecond = 1000000000;

// A boot-time clock that moves as it is slept on, and by a microsecond a reading.
class ClockSleep : public testing::Test {
 protected:
  ClockSleep() {
    fakes.clock_gettime = [this](clockid_t clock, timespec* now) {
      EXPECT_EQ(clock, CLOCK_BOOTTIME);
      *now = {now_ / kSecond, now_ % kSecond};
      now_ += 1000;
      return 0;
    };
    fakes.usleep = [this](useconds_t micros) {
      chunks_.push_back(micros);
      now_ += int64_t{micros} * 1000;
      if (on_sleep_) on_sleep_();
      return 0;
    };
  }

  int64_t now_ = 5 * kSecond + kSecond / 2;  // nanoseconds since boot
  std::vector<useconds_t> chunks_;
  std::function<void()> on_sleep_;
  ScopedFakes restore_;
};

TEST_F(ClockSleep, SleepsInChunksOfLessThanTenSeconds) {
  const struct {
    int64_t seconds;
    std::vector<useconds_t> chunks;
  } cases[] = {{0, {}},
               {1, {999999}},
               {10, {9999999}},
               {11, {999999, 9999999}},
               {25, {4999999, 9999999, 9999999}}};
  for (const auto& c : cases) {
    chunks_.clear();
    const int64_t deadline = now_ + c.seconds * kSecond;
    quorvel_clock_sleep(static_cast<unsigned long>(c.seconds));
    EXPECT_EQ(chunks_, c.chunks) << c.seconds;
    EXPECT_LT(std::abs(now_ - deadline), kSecond / 10000) << c.seconds;
  }
}

TEST_F(ClockSleep, TheClockAndNotTheSleepDecidesWhatRemains) {
  const struct {
    int64_t left;  // after the first chunk
    std::vector<useconds_t> chunks;
  } cases[] = {{20750000000, {4999999, 750000, 9999999, 9999999}},  // interrupted
               {2000000000, {4999999, 2000000}},                    // suspended meanwhile
               {100000000, {4999999, 100000}},
               {99999999, {4999999}},
               {-5000000000, {4999999}}};
  for (const auto& c : cases) {
    chunks_.clear();
    on_sleep_ = [this, end = now_ + 25 * kSecond - c.left] {
      if (chunks_.size() == 1) now_ = end;
    };
    quorvel_clock_sleep(25);
    EXPECT_EQ(chunks_, c.chunks) << c.left;
  }
}

// A deadline that wraps around lies in the past, and the call would return at once.
TEST_F(ClockSleep, SecondsBeyondTheClocksRangeDoNotWrapAround) {
  for (const unsigned long seconds : {ULONG_MAX, ULONG_MAX - 5, 1ul << 63, LONG_MAX + 0ul}) {
    chunks_.clear();
    fakes.clock_gettime = [this](clockid_t, timespec* now) {
      *now = chunks_.size() < 3 ? timespec{77, 5} : timespec{LONG_MAX, 6};
      return 0;
    };
    quorvel_clock_sleep(seconds);
    EXPECT_EQ(chunks_.size(), 3u);
    EXPECT_THAT(chunks_, testing::Each(testing::Lt(10000000u)));
  }
}

}  // namespace
