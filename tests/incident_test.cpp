// Whole incidents, their files, lines and events.

#include <android/log.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "core/timeout_response.h"
#include "log/incident_close.h"
#include "log/incident_header.h"
#include "log/log_file.h"
#include "log/quorvel_log.h"
#include "support/fakes.h"
#include "support/log_capture.h"
#include "support/surroundings.h"
#include "support/test_root.h"

namespace {

using test_root::kLogDir;
using test_root::ReadFile;
using test_root::SetProperty;
using testing::HasSubstr;
using Texts = std::vector<std::string>;

constexpr int kLog = QUORVEL_FLAG_LOG;

// Each test begins a rate-limit period of its own, so none adds to this process's count.
class Incident : public testing::Test {
 protected:
  Incident() {
    for (const char* dir : {kLogDir, "/data/log/dravik/", "/dev/__properties__/"}) {
      test_root::MakeEmptyDir(dir);
    }
    SetProperty("dravik.event.12.config", "1");
    SetProperty("debug.atrace.tags.enableflags", "0x800");
    now_ += 1000;
    fakes.time = [] { return now_; };
    fakes.gettimeofday = [] { return timeval{1763315480, 7250}; };
    fakes.getprogname = [this] { return program_; };
  }
  ~Incident() override { close(QuorvelGetLogFd()), QuorvelSetLogFd(-1); }

  void Respond(uint32_t flags) {
    const QuorvelCallback call = [](void* arg) { (*static_cast<std::function<void()>*>(arg))(); };
    log_.Clear();
    QuorvelTimeoutResponse(
        {0x20a, callback_ ? call : nullptr, gettid(), "100% of %s", now_ - 9, &callback_, flags},
        false);
  }
  Texts Logged() {
    Texts texts;
    for (const std::string& line : log_.Lines())
      texts.push_back(line.substr(strlen("E/QUORVEL: ")));
    log_.Clear();
    return texts;
  }
  static std::string LogPath(const std::string& name) { return test_root::Path(kLogDir + name); }
  static std::string Journal() { return ReadFile(test_root::Path(test_root::kJournal)); }

  static inline time_t now_ = 1763315480;
  const char* program_ = "app";
  std::function<void()> callback_;
  const std::string no_exit_ = "not set recovery flag of quorvel";
  ScopedFakes restore_;
  LogCapture log_;
};

TEST_F(Incident, TheWholeOfItComesInOrder) {
  const std::string tid = std::to_string(gettid()) + "\n", pid = std::to_string(getpid());
  const std::string time = std::to_string(now_), path = LogPath("quorvel@1763315480007.log");
  const std::string trace = test_root::Path("/sys/kernel/tracing/trace_marker");
  test_root::WriteFile(trace, "");
  std::string header;
  int fd = -1;
  callback_ = [&] {
    EXPECT_EQ(log_.Lines().front(), "E/QUORVEL: Trigger 0x20a Callback Function ...\n");
    EXPECT_EQ(Journal(), "");
    header = ReadFile(path);
    EXPECT_THAT(header, HasSubstr("\ntimeout tid: " + tid + "timeout function: 100% of %s\ntime "));
    QuorvelPrintLine("said by the callback");
    fd = QuorvelGetLogFd();
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0644));
  };
  const mode_t old_mask = umask(077);
  Respond(QUORVEL_FLAG_LOG | QUORVEL_FLAG_BACKTRACE | QUORVEL_FLAG_SYSTRACE);
  umask(old_mask);
  const std::string text = ReadFile(path);
  EXPECT_EQ(text.find(header + "\nkernel stack tid = " + tid), 0u);
  EXPECT_THAT(text.substr(header.size()), HasSubstr("\n\ntid = " + tid));
  EXPECT_THAT(text, testing::Not(HasSubstr("said by the callback")));
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  const std::string event = "{\"id\":12,\"pid\":" + pid + ",\"time\":" + time + ",\"command\":\"";
  const std::string message = "\",\"message\":\"app," + path + "\"}\n";
  const std::string first = event + "Z=copy_systrace_to_cache+quorvel+app" + message;
  EXPECT_EQ(Journal(), first);
  const std::string marker = "B|" + pid + "|quorvel_event_sync :pid=" + pid + " currTime=" + time +
                             " module=app\nE|" + pid + "\n";
  EXPECT_EQ(ReadFile(trace), marker);
  EXPECT_EQ(Logged().back(), no_exit_);

  SetProperty("debug.atrace.tags.enableflags", "0x7ff");
  callback_ = nullptr;
  Respond(0);
  EXPECT_TRUE(log_.Has("timeout function: ") && !log_.Has("stack"));
  EXPECT_EQ(Journal(), first + event + message);
  EXPECT_EQ(ReadFile(trace) + ReadFile(path), marker + text);
}

// In a process of its own, as it uses the count up.
TEST_F(Incident, TheRateLimitsCountOutlivesEveryPeriod) {
  const auto run = [&] {
    bool called = false;
    callback_ = [&] { called = true; };
    const auto respond = [&](uint32_t flags) {
      called = false;
      Respond(flags);
      const std::string last = Logged().back();
      const bool dropped = last == "Too many callback triggerd in a short time! \n";
      fputs(dropped && !called ? "-" : called && last == no_exit_ ? "+" : "?", stderr);
    };
    for (const uint32_t flags : {1u, 2u, 3u, 0u, 8u, 1u, 1u, 2u, 1u}) respond(flags);
    for (const time_t seconds : {60, 1, 60, 1, 60}) {
      now_ += seconds;
      respond(kLog);
    }
    _exit(0);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), testing::Eq("++++++++--+-+-"));
}

TEST_F(Incident, WithoutNamesItFallsBackAndHasNoEvent) {
  setenv("TZ", "QVT-5:30", 1);
  tzset();
  SetProperty("ro.product.brand", "brand");
  SetProperty("ro.build.tags", "tags");
  fakes.time = [] { return time_t{1763315480}; };
  program_ = nullptr;
  QuorvelInsertLogTitle(42, nullptr, 1l << 62);  // a time that has no text
  for (const char* config : {"", "01", "10"}) {
    SetProperty("dravik.event.12.config", config);
    QuorvelEndLog();
  }
  EXPECT_EQ(Logged(),
            Texts({"Sun Nov 16 23:21:20 2025\n", "timeout tid: 42\n", "time start: ",
                   "Build fingerprint: "
                   "brand/unknown/unknown:unknown/unknown/unknown:unknown/tags\n",
                   "QuorvelInsertLogTitle get_watched_process_info fail\n",
                   ">>> exe:" + std::filesystem::read_symlink("/proc/self/exe").string() + " <<<\n",
                   "get dravik config fail, skip...\n", "get progname is nullptr\n"}));
}

TEST_F(Incident, ALineIsKeptWholeOrNotAtAll) {
  QuorvelInitLog(kLog, false);
  const auto x = [](size_t count) { return std::string(count, 'x'); };
  const struct {
    size_t before, length, after;  // characters in the buffer, of the line, in the buffer then
    Texts messages;
  } cases[] = {{0, 1, 0, {}},
               {0, 2, 3, {"xx"}},
               {0, 1022, 1023, {x(1022)}},
               {0, 1023, 0, {}},
               {0, 1024, 0, {"QuorvelPrintLine: cannot vsnprintf 7\n"}},
               {4000, 95, 4000, {x(95), "log too long, drop '" + x(95) + "\n'"}},
               {4000, 94, 4095, {x(94)}}};
  for (const auto& c : cases) {
    QuorvelBeginLog(kLog);
    while (QuorvelLogLength() < c.before) QuorvelAppendLog("fffff", 5);
    errno = 7;
    QuorvelPrintLine("%s", x(c.length).c_str());
    EXPECT_EQ(errno, 7);
    EXPECT_EQ(QuorvelLogLength(), c.after) << c.length;
    EXPECT_EQ(Logged(), c.messages);
  }
  QuorvelBeginLog(kLog);
  EXPECT_EQ(std::string(QuorvelLogText(), kLogBufferSize), std::string(kLogBufferSize, '\0'));
  QuorvelPrintLine("one");
  QuorvelPrintLine("two\n");
  QuorvelFlushLog();
  EXPECT_EQ(ReadFile(QuorvelLastLogPath()), "one\ntwo\n");
  QuorvelBeginLog(QUORVEL_FLAG_BACKTRACE);
  QuorvelPrintLine("without the flag");
  EXPECT_EQ(QuorvelLogLength(), 0u);
}

}  // namespace
