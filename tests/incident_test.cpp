// Whole incidents: what is written, called and reported, and in which order.

#include <fcntl.h>

#include <filesystem>

#include "log/incident_close.h"
#include "log/incident_header.h"
#include "log/log_file.h"
#include "support/library_test.h"

namespace {

using test_root::ReadFile;
using test_root::SetProperty;
using testing::HasSubstr;

constexpr time_t kNow = 1763315480;

class Incident : public LibraryTest {
 protected:
  Incident() {
    fakes.time = [this] { return now_; };
    fakes.gettimeofday = [](timeval* now) { return *now = {kNow, 7250}, 0; };
    fakes.getprogname = [] { return "app"; };
  }

  time_t now_ = kNow;
  const std::string path_ =
      test_root::Path(std::string(test_root::kLogDir) + "quorvel@1763315480007.log");
  const std::string tid_ = std::to_string(gettid()) + "\n";
};

TEST_F(Incident, IsAnnouncedAndHasItsHeaderInTheFileBeforeTheCallbackRuns) {
  bool called = false;
  Respond(QUORVEL_FLAG_LOG, [&] {
    called = true;
    EXPECT_EQ(log_.Lines().front(), "E/QUORVEL: Trigger 0x20a Callback Function ...\n");
    EXPECT_THAT(ReadFile(path_), HasSubstr("\ntimeout tid: " + tid_));
    EXPECT_THAT(ReadFile(path_), HasSubstr("\n>>> app <<<\n"));
    EXPECT_EQ(Journal(), "");
  });
  EXPECT_TRUE(called);
  EXPECT_EQ(log_.Lines().back(), "E/QUORVEL: not set recovery flag of quorvel");
}

TEST_F(Incident, HasKernelStacksThenUserStacksAfterTheHeader) {
  std::string header;
  Respond(QUORVEL_FLAG_LOG | QUORVEL_FLAG_BACKTRACE, [&] {
    header = ReadFile(path_);
    QuorvelPrintLine("said by the callback");  // which no flush comes for
  });
  const std::string text = ReadFile(path_);
  EXPECT_THAT(text, testing::StartsWith(header + "\nkernel stack tid = " + tid_));
  EXPECT_THAT(text.substr(header.size()), HasSubstr("\n\ntid = " + tid_));
  EXPECT_THAT(text, testing::Not(HasSubstr("said by the callback")));
}

TEST_F(Incident, WithoutACallbackOrFlagsIsReportedAllTheSame) {
  Respond(QUORVEL_FLAG_LOG);
  const std::string text = ReadFile(path_);
  Respond(0);
  EXPECT_THAT(log_.Lines("W/QUORVEL: timeout function: "), testing::SizeIs(2));
  EXPECT_FALSE(log_.Has("stack"));
  const std::string event =
      ".\"id\":12,[^\n]*,\"command\":\"\",\"message\":\"app," + path_ + "\"}\n";
  EXPECT_THAT(Journal(), testing::MatchesRegex(event + event));  // the file that was opened last
  EXPECT_EQ(ReadFile(path_), text);
}

TEST_F(Incident, HasItsFileAlsoWhereThatIsDescriptorZero) {
  RunInChild([this] {
    close(STDIN_FILENO);
    Respond(QUORVEL_FLAG_LOG | QUORVEL_FLAG_BACKTRACE,
            [] { EXPECT_EQ(QuorvelGetLogFd(), STDIN_FILENO); });
    EXPECT_THAT(ReadFile(path_), HasSubstr("\n>>> app <<<\n"));
    EXPECT_THAT(ReadFile(path_), HasSubstr("\n\ntid = "));
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
  });
}

TEST_F(Incident, ClosesItsFileAndNoOther) {
  int fd = -1;
  Respond(QUORVEL_FLAG_LOG, [&] { fd = QuorvelGetLogFd(); });
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  EXPECT_EQ(QuorvelGetLogFd(), -1);
  ASSERT_EQ(open("/dev/null", O_RDONLY | O_CLOEXEC), fd);  // its number is another's now
  QuorvelEndLog();
  EXPECT_EQ(close(fd), 0);
}

TEST_F(Incident, LeavesOneSectionInTheTrace) {
  Respond(0);
  const std::string pid = std::to_string(getpid());
  EXPECT_EQ(ReadFile(trace_), "B|" + pid + "|quorvel_event_sync :pid=" + pid + " currTime=" +
                                  std::to_string(now_) + " module=app\nE|" + pid + "\n");
}

TEST_F(Incident, IsReportedOnlyIfTheConfigurationBeginsWithOne) {
  for (const char* config : {"01", "0", " 1"}) {
    SetProperty("dravik.event.12.config", config);
    QuorvelEndLog();
  }
  EXPECT_EQ(log_.Lines(), Texts{});
  SetProperty("dravik.event.12.config", "");
  QuorvelEndLog();
  EXPECT_EQ(log_.Lines(), Texts{"E/QUORVEL: get dravik config fail, skip...\n"});
  EXPECT_EQ(Journal(), "");
  SetProperty("dravik.event.12.config", "10");
  QuorvelEndLog();
  EXPECT_NE(Journal(), "");
}

TEST_F(Incident, HeaderHasItsLinesInOrderAndLocalTime) {
  SetProperty("ro.build.fingerprint", "the whole of it");
  QuorvelInsertLogTitle(42, "100% of %s", kNow - 9);
  EXPECT_EQ(log_.Lines(),
            Texts({"W/QUORVEL: Sun Nov 16 23:21:20 2025\n", "W/QUORVEL: timeout tid: 42\n",
                   "W/QUORVEL: timeout function: 100% of %s\n",
                   "W/QUORVEL: time start: Sun Nov 16 23:21:11 2025\n",
                   "W/QUORVEL: Build fingerprint: the whole of it\n", "W/QUORVEL: >>> app <<<\n"}));
}

TEST_F(Incident, HeaderLeavesOutWhatItHasNoTextFor) {
  QuorvelInsertLogTitle(42, nullptr, 1l << 62);
  const Texts lines = log_.Lines("W/QUORVEL: ");
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[1], "timeout tid: 42\n");
  EXPECT_EQ(lines[2], "time start: ");
}

TEST_F(Incident, FingerprintIsMadeOfItsPartsInOrder) {
  const char* const parts[] = {"ro.product.brand",  "ro.product.name",
                               "ro.product.device", "ro.build.version.release",
                               "ro.build.id",       "ro.build.version.incremental",
                               "ro.build.type",     "ro.build.tags"};
  QuorvelInsertLogTitle(42, nullptr, kNow);
  for (const char* part : parts) SetProperty(part, strrchr(part, '.'));
  QuorvelInsertLogTitle(42, nullptr, kNow);
  EXPECT_EQ(log_.Lines("W/QUORVEL: Build fingerprint: "),
            Texts({"unknown/unknown/unknown:unknown/unknown/unknown:unknown/unknown\n",
                   ".brand/.name/.device:.release/.id/.incremental:.type/.tags\n"}));
}

TEST_F(Incident, WithoutAProgramsNameHasItsPathAndNoEvent) {
  fakes.getprogname = [] { return nullptr; };
  Respond(0);
  const std::string path = std::filesystem::read_symlink("/proc/self/exe");
  EXPECT_TRUE(log_.Has("E/QUORVEL: QuorvelInsertLogTitle get_watched_process_info fail\n"));
  EXPECT_TRUE(log_.Has("W/QUORVEL: >>> exe:" + path + " <<<\n"));
  EXPECT_TRUE(log_.Has("E/QUORVEL: get progname is nullptr\n"));
  EXPECT_EQ(Journal(), "");
}

TEST_F(Incident, IsDroppedOnceTheRateLimitsCountIsSpentWhichNoPeriodRestores) {
  std::string outcomes;
  const auto respond = [&](uint32_t flags) {
    bool called = false;
    Respond(flags, [&] { called = true; });
    const std::string last = log_.Lines().back();
    const bool dropped = last == "E/QUORVEL: Too many callback triggerd in a short time! \n";
    const bool whole = called && last == "E/QUORVEL: not set recovery flag of quorvel";
    outcomes += dropped && !called ? '-' : whole ? '+' : '?';
  };
  for (const uint32_t flags : {1u, 2u, 3u, 0u, 8u, 1u, 1u, 2u, 1u}) respond(flags);
  for (const time_t seconds : {60, 1, 60, 1, 60}) {
    now_ += seconds;
    respond(QUORVEL_FLAG_LOG);
  }
  EXPECT_EQ(outcomes, "++++++++--+-+-");
}

}  // namespace
