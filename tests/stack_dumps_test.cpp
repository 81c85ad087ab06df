// The kernel and user stacks of an incident.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvel/quorvel.h>
#include <sys/prctl.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <sstream>

#include "log/kernel_backtrace.h"
#include "log/quorvel_log.h"
#include "log/user_backtrace.h"
#include "support/log_capture.h"
#include "support/parked_thread.h"
#include "support/test_root.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

void Sleep(const std::atomic<bool>& stop) {
  while (!stop) usleep(1000);
}

class StackDumps : public testing::Test {
 protected:
  StackDumps() {
    unlink(path_.c_str());
    QuorvelBeginLog(QUORVEL_FLAG_LOG | QUORVEL_FLAG_BACKTRACE);
    QuorvelSetLogFd(open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  }
  ~StackDumps() override { CloseLog(); }

  void CloseLog() {
    if (QuorvelGetLogFd() >= 0) close(QuorvelGetLogFd());
    QuorvelSetLogFd(-1);
  }

  // The thread ids of the sections whose first line is this text before the id, in the order of the
  // file; the line of a thread that could not be unwound counts as its section.
  std::vector<int> Sections(const std::string& start) {
    const std::regex first_line("(Unwind failed: )?" + start + "([0-9]+).*");
    std::vector<int> tids;
    std::istringstream lines(test_root::ReadFile(path_));
    std::smatch match;
    for (std::string line; std::getline(lines, line);) {
      if (std::regex_match(line, match, first_line)) tids.push_back(std::stoi(match[2]));
    }
    return tids;
  }

  // Every thread of the process in ascending order, but with first at the front and without
  // left_out. An emulator has a thread of its own here.
  static std::vector<int> Threads(int first, int left_out) {
    std::vector<int> tids;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
      const int tid = std::stoi(entry.path().filename());
      if (tid != first && tid != left_out) tids.push_back(tid);
    }
    std::sort(tids.begin(), tids.end());
    tids.insert(tids.begin(), first);
    return tids;
  }

  const std::string path_ = test_root::Path("/dumps.txt");
  LogCapture log_;
};

TEST_F(StackDumps, WatchedThreadFirstThenTheOthersInOrderAndNeverTheCaller) {
  ParkedThread a(Sleep);
  ParkedThread b(Sleep);
  ParkedThread c(Sleep);
  const std::vector<int> expected = Threads(b.tid(), 0);
  ASSERT_GE(expected.size(), 4u);
  ParkedThread monitor([&](const auto&) {
    QuorvelKernBacktrace(b.tid());
    QuorvelUserBacktrace(b.tid());
  });
  monitor.Stop();
  EXPECT_EQ(Sections("kernel stack tid = "), expected);
  EXPECT_EQ(Sections("tid = "), expected);
  EXPECT_THAT(test_root::ReadFile(path_),
              HasSubstr("\n\ntid = " + std::to_string(a.tid()) + "\n  #00 pc "));
}

TEST_F(StackDumps, AThreadThatIsGoneIsSkippedAndTheOthersFollow) {
  ParkedThread gone(Sleep);
  ParkedThread other(Sleep);
  gone.Stop();
  QuorvelKernBacktrace(gone.tid());
  EXPECT_TRUE(log_.Has("get stack fail, skip...\n"));
  const std::vector<int> others = Threads(other.tid(), gettid());
  EXPECT_THAT(Sections("kernel stack tid = "), testing::UnorderedElementsAreArray(others));
  QuorvelUserBacktrace(gone.tid());
  EXPECT_THAT(test_root::ReadFile(path_),
              HasSubstr("Unwind failed: tid = " + std::to_string(gone.tid()) + ": \n"));
  EXPECT_THAT(Sections("tid = "), testing::IsSupersetOf(others));
}

TEST_F(StackDumps, OnlyTheWatchedThreadsKernelStackIsEchoed) {
  ParkedThread watched(Sleep);
  ParkedThread other(Sleep);
  QuorvelKernBacktrace(watched.tid());
  EXPECT_EQ(log_.Lines(ANDROID_LOG_ERROR).size(), 1u);
  EXPECT_EQ(log_.Lines(ANDROID_LOG_WARN).size(), Threads(watched.tid(), gettid()).size());
}

TEST_F(StackDumps, WithoutAFileOnlyTheEchoIsLeft) {
  CloseLog();
  ParkedThread watched(Sleep);
  QuorvelUserBacktrace(watched.tid());
  EXPECT_THAT(log_.Lines(), IsEmpty());
  QuorvelKernBacktrace(watched.tid());
  EXPECT_EQ(log_.Lines(ANDROID_LOG_ERROR).size(), 1u);
  EXPECT_EQ(test_root::ReadFile(path_), "");
}

TEST_F(StackDumps, TheProcessIsDumpableOnlyMeanwhile) {
  ParkedThread watched(Sleep);
  for (const int dumpable : {0, 1}) {
    ASSERT_EQ(prctl(PR_SET_DUMPABLE, dumpable), 0);
    QuorvelKernBacktrace(watched.tid());
    EXPECT_EQ(prctl(PR_GET_DUMPABLE), dumpable);
  }
  EXPECT_FALSE(log_.Has("get stack fail"));
}

// What the file shows of every frame is what the log shows.
TEST_F(StackDumps, EveryLineOfTheUserStacksIsEchoedToo) {
  ParkedThread watched(Sleep);
  QuorvelUserBacktrace(watched.tid());
  std::string echoed;
  for (const LogLine& line : log_.Lines(ANDROID_LOG_ERROR)) {
    if (line.tag != "QUORVEL") continue;
    echoed += line.text + (line.text.back() == '\n' ? "" : "\n");
  }
  EXPECT_EQ(echoed, test_root::ReadFile(path_));
}

}  // namespace
