#include "core/recovery_limit.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <utility>

#include "support/fakes.h"
#include "support/log_capture.h"
#include "support/test_root.h"

namespace {

using test_root::PropertyText;
using test_root::SetProperty;
using testing::AllOf;
using testing::ElementsAre;
using testing::ExitedWithCode;
using testing::HasSubstr;

constexpr char kRecord[] = "quorvel.s.rec.97";  // of a program named a
constexpr char kUnknown[] = "quorvel.s.rec.170931438";
constexpr int64_t kNow = 1763315480;

class RecoveryLimit : public testing::Test {
 protected:
  RecoveryLimit() {
    test_root::MakeEmptyDir("/dev/__properties__/");
    fakes.time = [] { return time_t{kNow}; };
    fakes.getprogname = [] { return "a"; };
  }
  ~RecoveryLimit() override { test_root::MakeEmptyDir("/dev/__properties__/"); }

  ScopedFakes restore_;
};

TEST_F(RecoveryLimit, RecordsAreNamedAfterTheHashOfTheProgram) {
  EXPECT_EQ(QuorvelRecoveryRecordName(false, "a"), kRecord);
  EXPECT_EQ(QuorvelRecoveryRecordName(false, "UNKNOWN"), kUnknown);
  EXPECT_EQ(QuorvelRecoveryRecordName(true, "abcdefghij"), "odm.quorvel.rec.180004458");
  EXPECT_EQ(QuorvelRecoveryRecordName(false, "\xff"), "quorvel.s.rec.255");
  const std::pair<const char*, const char*> names[] = {
      {"/vendor/bin/a", kRecord}, {nullptr, kUnknown}, {"", kUnknown}, {"dir/", kUnknown}};
  for (const auto& [name, record] : names) {
    SetProperty(record, nullptr);
    fakes.getprogname = [text = name] { return text; };
    EXPECT_EXIT(QuorvelRecover(false), ExitedWithCode(1), "");
    EXPECT_EQ(PropertyText(record), "1,1763315480");
  }
}

TEST_F(RecoveryLimit, MalformedRecordsReadAsFarAsTheyGo) {
  std::string read;
  for (const char* value : {"", "7", "4,100", "-1,0", "x,y", ",5", "5,", "3abc,99def", " 5, 6 ",
                            "1,2,3", "1.9,2.9", "0x10,0x10", "5,-9223372036854775808"}) {
    const QuorvelRecoveryRecord record = QuorvelParseRecoveryRecord(value);
    read += std::to_string(record.count) + "," + std::to_string(record.time) + " ";
  }
  EXPECT_EQ(read, "0,0 0,0 4,100 -1,0 0,0 0,5 5,0 3,99 5,6 1,2 1,2 0,0 5,-9223372036854775808 ");
}

// The last time is what the property store says: it may lie anywhere.
TEST_F(RecoveryLimit, FiveExitsAreFreeAndThenOneEachHalfHour) {
  for (const int64_t time : {kNow - 1800, int64_t{-1}, int64_t{LONG_MIN}}) {
    EXPECT_TRUE(QuorvelRecoveryAllowed({5, time}, kNow)) << time;
    EXPECT_TRUE(QuorvelRecoveryAllowed({INT_MAX, time}, kNow)) << time;
    EXPECT_FALSE(QuorvelRecoveryAllowed({-1, time}, kNow)) << time;
  }
  for (const int64_t time : {kNow - 1799, kNow + 1, int64_t{LONG_MAX}}) {
    EXPECT_TRUE(QuorvelRecoveryAllowed({4, time}, kNow)) << time;
    EXPECT_FALSE(QuorvelRecoveryAllowed({5, time}, kNow)) << time;
  }
}

TEST_F(RecoveryLimit, AnExitIsSaidAndCounted) {
  const char* const cases[][3] = {
      // record before, what is read, record after
      {nullptr, "0 last happen time:0", "1,1763315480"},
      {"7", "0 last happen time:0", "1,1763315480"},
      {"4,100", "4 last happen time:100", "5,1763315480"},
      {"5,1763313680", "5 last happen time:1763313680", "6,1763315480"},
      {"6,-99999999999", "6 last happen time:-99999999999", "7,1763315480"},
      {"2147483647,0", "2147483647 last happen time:0", "2147483647,1763315480"}};
  for (const auto& [before, reading, after] : cases) {
    SetProperty(kRecord, before);
    EXPECT_EXIT(
        QuorvelRecover(false), ExitedWithCode(1),
        AllOf(HasSubstr(std::string(" I QUORVEL : quorvel recovery limit count:") + reading),
              HasSubstr(" E QUORVEL : exit process from quorvel\n")));
    EXPECT_EQ(PropertyText(kRecord), after);
  }
  test_root::RemoveTree("/dev/__properties__/");  // a record that cannot be written
  EXPECT_EXIT(QuorvelRecover(false), ExitedWithCode(1), "exit process from quorvel");
}

TEST_F(RecoveryLimit, ASkippedExitIsSaidAndNotCounted) {
  const std::pair<const char*, const char*> cases[] = {
      {"5,1763315380", "quorvel recovery limit count:5 last happen time:1763315380"},
      {"-1,0", "quorvel recovery limit count:-1 last happen time:0"}};
  for (const auto& [record, reading] : cases) {
    SetProperty(kRecord, record);
    LogCapture log;
    QuorvelRecover(false);
    EXPECT_THAT(log.Lines(),
                ElementsAre(Info(reading),
                            Error("Skip exit, because it has recovery more than 5 times\n")));
    EXPECT_EQ(PropertyText(kRecord), record);
  }
}

TEST_F(RecoveryLimit, OnlyFalseSwitchesTheExitOffForItsOwnSide) {
  for (const bool is_vendor : {false, true}) {
    SetProperty("ro.quorvel.rec", is_vendor ? "true" : "false");
    SetProperty("ro.vendor.quorvel.rec", is_vendor ? "false" : "true");
    {
      LogCapture log;
      QuorvelRecover(is_vendor);
      EXPECT_THAT(log.Lines(), ElementsAre(Error("not set recovery flag of quorvel")));
    }
    for (const char* value : {"true", "0", "FALSE", "false ", "falsehood"}) {
      SetProperty(is_vendor ? "ro.vendor.quorvel.rec" : "ro.quorvel.rec", value);
      EXPECT_EXIT(QuorvelRecover(is_vendor), ExitedWithCode(1), "exit process") << value;
    }
  }
  EXPECT_EQ(PropertyText(kRecord), "5,1763315480");
  EXPECT_EQ(PropertyText("odm.quorvel.rec.97"), "5,1763315480");
}

}  // namespace
