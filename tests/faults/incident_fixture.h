// Runs whole incidents in this process, one a call, in a log directory that already holds ten
// files. Time stands still but between incidents; pauses are counted, not slept.
#ifndef QUORVEL_TESTS_FAULTS_INCIDENT_FIXTURE_H_
#define QUORVEL_TESTS_FAULTS_INCIDENT_FIXTURE_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "core/timeout_response.h"
#include "support/fakes.h"
#include "support/log_capture.h"
#include "support/test_root.h"

using Texts = std::vector<std::string>;

class IncidentTest : public testing::Test {
 protected:
  static constexpr int kFailed = 3;  // exit code of a child in which an expectation failed
  static constexpr int kSkipped = 4;

  IncidentTest() {
    for (const char* dir : {test_root::kLogDir, "/data/log/dravik", "/dev/__properties__"}) {
      test_root::MakeEmptyDir(dir);
    }
    test_root::SetProperty("dravik.event.12.config", "1");
    test_root::SetProperty("ro.build.fingerprint", "the/build");
    FillWithOldLogs();
    fakes.time = [] { return now_; };
    fakes.gettimeofday = [this] { return timeval{now_, 1000 * millisecond_++}; };
    fakes.usleep = [this](useconds_t) { return ++pauses_, 0; };
  }

  static std::string Dir() { return test_root::Path(test_root::kLogDir); }
  static std::string LogPath() { return Dir() + "quorvel@" + std::to_string(now_) + "000.log"; }
  static void FillWithOldLogs() {
    for (int i = 0; i < 10; ++i) test_root::WriteFile(Dir() + "old" + std::to_string(i), "");
  }

  // So long after the last one that the rate limit lets it through.
  void Respond(uint32_t flags) {
    now_ += 61;
    millisecond_ = calls_ = pauses_ = 0;
    log_.Clear();
    const QuorvelCallback callback = [](void* calls) { ++*static_cast<int*>(calls); };
    QuorvelTimeoutResponse({0x201, callback, tid_, "work", now_, &calls_, flags}, false);
  }

  // What the last incident logged as an error, without what every one does and without stacks.
  Texts Failures() const {
    Texts texts;
    for (const LogLine& line : log_.Lines(ANDROID_LOG_ERROR)) {
      const auto is = [&line](const char* begin) { return line.text.rfind(begin, 0) == 0; };
      const bool usual = is("Trigger 0x201 Callback Function ...\n") ||
                         is("not set recovery flag of quorvel") || is("\ntid = ") || is("  #") ||
                         is("[");
      if (!usual) texts.push_back(line.text);
    }
    return texts;
  }

  static long LogFiles() {
    const Texts names = test_root::List(test_root::kLogDir);
    return std::count_if(names.begin(), names.end(), [](const std::string& name) {
      const auto status = std::filesystem::symlink_status(Dir() + name);
      return name[0] != '.' && std::filesystem::is_regular_file(status);
    });
  }

  static bool WholeHeader(const std::string& path) {
    const std::string text = test_root::ReadFile(path);
    return text.find("timeout function: work\n") != std::string::npos &&
           text.find("Build fingerprint: the/build\n>>> fault_tests <<<\n") != std::string::npos;
  }

  // Whatever went wrong before, the next incident has its file, within the limit; a lock that was
  // left behind goes after five looks at it.
  void ExpectNextIncidentIsWell() {
    Respond(QUORVEL_FLAG_LOG);
    EXPECT_EQ(calls_, 1);
    EXPECT_THAT(Failures(), testing::IsEmpty());
    EXPECT_TRUE(WholeHeader(LogPath()));
    EXPECT_LE(LogFiles(), 10);
    EXPECT_FALSE(std::filesystem::exists(Dir() + ".lock"));
    EXPECT_THAT(pauses_, testing::AnyOf(0, 4));
  }

  // The exit code of a child that runs body, or 128 and the signal that ended it.
  static int InChild(const std::function<void()>& body) {
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
      body();
      fflush(stdout);
      _exit(HasFailure() ? kFailed : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  static inline time_t now_ = 1763315480;  // the rate limit lives as long as the process
  int millisecond_ = 0;
  int calls_ = 0;
  int pauses_ = 0;
  int tid_ = getpid();
  ScopedFakes restore_;
  LogCapture log_;
};

#endif  // QUORVEL_TESTS_FAULTS_INCIDENT_FIXTURE_H_
