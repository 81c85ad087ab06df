// The table of durations: which row a watch counts in, what the row says.

#include <quorvel/durations.hpp>

#include <thread>

#include "support/library_test.h"

namespace {

using quorvel::MeasuredWatch;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ContainsRegex;
using testing::HasSubstr;

// The time is the test's, the table empty.
class Durations : public LibraryTest {
 protected:
  Durations() {
    new (&quorvel::detail::g_durations) quorvel::detail::DurationTable{};
    fakes.clock_gettime = [this](clockid_t, timespec* now) {
      *now = {now_.count() / 1000, now_.count() % 1000 * 1'000'000};
      return 0;
    };
    InitWithoutMonitor();
  }

  void Measure(const char* name, milliseconds duration, seconds timeout = seconds(10)) {
    const MeasuredWatch watch(name, timeout);
    now_ += duration;
  }

  static std::string Printed() {
    const std::string path = test_root::Path("/durations.txt");
    FILE* const out = fopen(path.c_str(), "w");
    quorvel::PrintDurations(out);
    fclose(out);
    return test_root::ReadFile(path);
  }

  milliseconds now_{5000};
};

TEST_F(Durations, ARowHasCountQuantilesLongestAndShare) {
  for (int i = 0; i < 97; ++i) Measure("work", milliseconds(100));
  for (int i = 0; i < 3; ++i) Measure("work", milliseconds(4900));
  // The median is its bucket's end, an eighth too large at most; 99 % is cut to the longest.
  EXPECT_THAT(Printed(), ContainsRegex("\nwork +10 s +100 +10[0-9] ms +4.90 s +4.90 s +49 %\n$"));
}

TEST_F(Durations, ARowIsMarkedFromHalfItsTimeoutOnAndTheNearestComesFirst) {
  Measure("far", milliseconds(4999));
  Measure("over", milliseconds(12000));
  Measure("near", milliseconds(5000));
  EXPECT_THAT(Printed(), ContainsRegex("\nover .* 120 %  <--\nnear .* 50 %  <--\nfar .* 49 %\n$"));
}

TEST_F(Durations, OneNameWithTwoTimeoutsHasTwoRows) {
  Measure("work", milliseconds(1000), seconds(10));
  Measure(std::string("work").c_str(), milliseconds(1000), seconds(10));
  Measure("work", milliseconds(1000), seconds(2));
  EXPECT_THAT(Printed(), ContainsRegex("\nwork +2 s +1 .*\nwork +10 s +2 "));
}

TEST_F(Durations, AnUpdateBeginsANewDuration) {
  {
    MeasuredWatch watch("work", seconds(10));
    now_ += seconds(4);
    EXPECT_TRUE(watch.Update(seconds(10)));
    now_ += seconds(3);
    EXPECT_TRUE(watch.Update(seconds(60)));
    now_ += seconds(6);
  }
  EXPECT_THAT(Printed(), ContainsRegex("work +10 s +2 .* 4.00 s +40 %"));
  EXPECT_THAT(Printed(), ContainsRegex("work +60 s +1 .* 6.00 s +10 %"));
}

TEST_F(Durations, AWatchIsMeasuredOnceWhereverItIsMoved) {
  {
    MeasuredWatch watch("work", seconds(10)), moved(std::move(watch));
    now_ += seconds(1);
    watch = std::move(moved);
    EXPECT_EQ(watch.End(), quorvel::Watch::State::kEnded);
  }
  EXPECT_THAT(Printed(), ContainsRegex("work +10 s +1 "));
}

TEST_F(Durations, ATimeoutThatIsRefusedIsNotMeasured) {
  Measure("work", milliseconds(1), seconds(0));
  EXPECT_THAT(Printed(), testing::Not(HasSubstr("work")));
}

TEST_F(Durations, WhatFindsNoRowIsCounted) {
  const size_t kRows = quorvel::detail::kDurationRows;
  for (size_t i = 0; i < kRows + 2; ++i) {
    Measure(("work " + std::to_string(i)).c_str(), milliseconds(1));
  }
  EXPECT_THAT(Printed(), HasSubstr("\n2 watches are missing: the table has 64 rows\n"));
}

TEST_F(Durations, LongNamesAreCutAndNullOnesHaveARow) {
  Measure((std::string(47, 'x') + "a").c_str(), milliseconds(1));
  Measure((std::string(47, 'x') + "b").c_str(), milliseconds(1));
  Measure(nullptr, milliseconds(1));
  EXPECT_THAT(Printed(), ContainsRegex("\nx{47} +10 s +2 "));
  EXPECT_THAT(Printed(), HasSubstr("\n(no name)"));
}

TEST_F(Durations, EveryBucketEndsWhereTheNextBegins) {
  using quorvel::detail::BucketEnd;
  using quorvel::detail::BucketOf;
  for (size_t i = 0; i + 1 < quorvel::detail::kDurationBuckets; ++i) {
    EXPECT_EQ(BucketOf(BucketEnd(i) - 1), i);
    EXPECT_EQ(BucketOf(BucketEnd(i)), i + 1);
  }
  EXPECT_EQ(BucketOf(0), 0u);
  EXPECT_EQ(BucketOf(UINT64_MAX), quorvel::detail::kDurationBuckets - 1);
}

TEST_F(Durations, ThreadsThatRecordAtOnceLoseNothing) {
  std::thread threads[4];
  for (std::thread& thread : threads) {
    thread = std::thread([] {
      for (int turn = 0; turn < 500; ++turn) const MeasuredWatch watch("work", seconds(60));
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(Printed(), ContainsRegex("work +60 s +2000 "));
}

}  // namespace
