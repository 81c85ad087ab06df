#include "log/incident_header.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include "support/fakes.h"
#include "support/log_capture.h"
#include "support/test_root.h"

namespace {

using test_root::SetProperty;
using testing::ElementsAre;

class IncidentHeader : public testing::Test {
 protected:
  IncidentHeader() {
    setenv("TZ", "UTC", 1);
    tzset();
    fakes.time = [] { return time_t{1763315480}; };
    fakes.getprogname = [] { return "app"; };
    SetProperty("ro.build.fingerprint", "brand/print");
  }
  ~IncidentHeader() override { SetProperty("ro.build.fingerprint", nullptr); }

  ScopedFakes restore_;
  LogCapture log_;
};

TEST_F(IncidentHeader, SixLinesInOrder) {
  QuorvelInsertLogTitle(42, "flush 100% of %s", 1763315470);
  EXPECT_THAT(log_.Lines(),
              ElementsAre(Warning("Sun Nov 16 17:51:20 2025\n"), Warning("timeout tid: 42\n"),
                          Warning("timeout function: flush 100% of %s\n"),
                          Warning("time start: Sun Nov 16 17:51:10 2025\n"),
                          Warning("Build fingerprint: brand/print\n"), Warning(">>> app <<<\n")));
}

TEST_F(IncidentHeader, NoNameAndNoProgramNameFallBack) {
  fakes.getprogname = [] { return static_cast<const char*>(nullptr); };
  QuorvelInsertLogTitle(1, nullptr, 0);
  const std::vector<LogLine> lines = log_.Lines();
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_FALSE(log_.Has("timeout function"));
  EXPECT_EQ(lines[4], Error("QuorvelInsertLogTitle get_watched_process_info fail\n"));
  EXPECT_THAT(lines[5].text, testing::MatchesRegex(">>> exe:/.*unit_tests <<<\n"));
}

TEST_F(IncidentHeader, TheFingerprintIsAssembledFromItsParts) {
  SetProperty("ro.build.fingerprint", "");
  SetProperty("ro.product.brand", "B");
  QuorvelInsertLogTitle(1, nullptr, 0);
  EXPECT_TRUE(
      log_.Has("Build fingerprint: B/unknown/unknown:unknown/unknown/unknown:unknown/unknown\n"));
  const char* const parts[] = {"ro.product.brand",  "ro.product.name",
                               "ro.product.device", "ro.build.version.release",
                               "ro.build.id",       "ro.build.version.incremental",
                               "ro.build.type",     "ro.build.tags"};
  for (int i = 0; i < 8; ++i) SetProperty(parts[i], std::to_string(i + 1).c_str());
  QuorvelInsertLogTitle(1, nullptr, 0);
  EXPECT_TRUE(log_.Has("Build fingerprint: 1/2/3:4/5/6:7/8\n"));
  for (const char* part : parts) SetProperty(part, nullptr);
}

// The year is more than four digits long: the text is longer than usual, or there is none.
TEST_F(IncidentHeader, AbsurdStartTimesDoNotOverrunTheText) {
  for (const long start : {-1L, 1L << 40, 1L << 62, -(1L << 62)}) {
    log_.Clear();
    QuorvelInsertLogTitle(1, "name", start);
    EXPECT_TRUE(log_.Has("time start: "));
    EXPECT_TRUE(log_.Has(">>> app <<<\n"));
  }
}

}  // namespace
