#include "log/incident_close.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvel/quorvel.h>
#include <unistd.h>

#include "log/log_file.h"
#include "log/quorvel_log.h"
#include "support/fakes.h"
#include "support/log_capture.h"
#include "support/test_root.h"

namespace {

using test_root::SetProperty;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kConfig[] = "dravik.event.12.config";
constexpr char kTags[] = "debug.atrace.tags.enableflags";

class IncidentClose : public testing::Test {
 protected:
  IncidentClose() {
    test_root::MakeEmptyDir(test_root::kLogDir);
    test_root::MakeEmptyDir("/data/log/dravik/");
    test_root::WriteFile(trace_, "");
    fakes.time = [] { return time_t{1763315480}; };
    fakes.getprogname = [] { return "app"; };
    SetProperty(kConfig, "1");
    SetProperty(kTags, nullptr);
  }
  ~IncidentClose() override {
    SetProperty(kConfig, nullptr);
    SetProperty(kTags, nullptr);
  }

  std::string Journal() { return test_root::ReadFile(test_root::Path(test_root::kJournal)); }
  std::string Event(const std::string& command, const std::string& message) {
    return "{\"id\":12,\"pid\":" + std::to_string(getpid()) +
           ",\"time\":1763315480,\"command\":\"" + command + "\",\"message\":\"" + message +
           "\"}\n";
  }

  const std::string trace_ = test_root::Path("/sys/kernel/tracing/trace_marker");
  ScopedFakes restore_;
  LogCapture log_;
};

// Runs first: no log file has been opened in this process.
TEST_F(IncidentClose, AWithoutAnyLogFileTheMessageIsTheProgramAlone) {
  ASSERT_EQ(QuorvelLastLogPath(), "");
  QuorvelBeginLog(0);
  QuorvelEndLog();
  EXPECT_EQ(Journal(), Event("", "app"));
}

TEST_F(IncidentClose, ClosesTheFileAndNamesItInTheEvent) {
  QuorvelInitLog(QUORVEL_FLAG_LOG | QUORVEL_FLAG_SYSTRACE, false);
  const int fd = QuorvelGetLogFd();
  ASSERT_GE(fd, 0);
  QuorvelEndLog();
  EXPECT_EQ(QuorvelGetLogFd(), -1);
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  EXPECT_EQ(Journal(),
            Event("Z=copy_systrace_to_cache+quorvel+app", "app," + QuorvelLastLogPath()));
  // Nothing is open now; whoever got the number meanwhile keeps it.
  const int reused = open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(reused, fd);
  QuorvelEndLog();
  EXPECT_NE(fcntl(reused, F_GETFD), -1);
  close(reused);
}

TEST_F(IncidentClose, TheConfigurationsFirstCharacterDecides) {
  const struct {
    const char* config;
    bool sent;
    bool complains;
  } cases[] = {{"1", true, false},   {"10", true, false},    {"0", false, false},
               {"01", false, false}, {"true", false, false}, {nullptr, false, true},
               {"", false, true}};
  for (const auto& c : cases) {
    test_root::MakeEmptyDir("/data/log/dravik/");
    log_.Clear();
    SetProperty(kConfig, c.config);
    QuorvelEndLog();
    EXPECT_EQ(!Journal().empty(), c.sent) << (c.config != nullptr ? c.config : "unset");
    EXPECT_EQ(log_.Has("get dravik config fail, skip...\n"), c.complains);
  }
}

TEST_F(IncidentClose, TheMarkerFollowsTheHalTag) {
  QuorvelEndLog();
  EXPECT_EQ(test_root::ReadFile(trace_), "");
  SetProperty(kTags, "0x800");
  QuorvelEndLog();
  const std::string pid = std::to_string(getpid());
  EXPECT_EQ(test_root::ReadFile(trace_), "B|" + pid + "|quorvel_event_sync :pid=" + pid +
                                             " currTime=1763315480 module=app\nE|" + pid + "\n");
}

TEST_F(IncidentClose, NoProgramNameOrNoJournalIsSurvived) {
  fakes.getprogname = [] { return static_cast<const char*>(nullptr); };
  QuorvelEndLog();
  EXPECT_THAT(log_.Lines(), ElementsAre(Error("get progname is nullptr\n")));
  fakes.getprogname = [] { return "app"; };
  test_root::RemoveTree("/data/log/dravik/");
  log_.Clear();
  QuorvelEndLog();
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(IncidentClose, HostileProgramNamesStayOneLineOfJson) {
  fakes.getprogname = [] { return "a\"b\\c\nd\x01%s\xff\xc3\xa9"; };
  QuorvelBeginLog(0);
  QuorvelEndLog();
  const std::string journal = Journal();
  EXPECT_EQ(std::count(journal.begin(), journal.end(), '\n'), 1);
  EXPECT_THAT(journal, testing::HasSubstr("\"a\\\"b\\\\c\\u000ad\\u0001%s\\ufffd\xc3\xa9"));
}

}  // namespace
