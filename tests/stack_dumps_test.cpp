// The kernel and user stacks of an incident, and the threads whose stacks these are.

#include <fcntl.h>

#include <filesystem>

#include "log/kernel_backtrace.h"
#include "log/user_backtrace.h"
#include "support/library_test.h"
#include "support/parked_thread.h"
#include "support/surroundings.h"

namespace {

__attribute__((noinline)) void SleepBelow(const std::atomic<bool>& stop, int depth = 70) {
  depth > 0 ? SleepBelow(stop, depth - 1) : Sleep(stop);
  asm volatile("");
}

class StackDumps : public LibraryTest {
 protected:
  StackDumps() {
    while (g_asleep < 3) usleep(1000);
    QuorvelBeginLog(QUORVEL_FLAG_LOG | QUORVEL_FLAG_BACKTRACE);
    QuorvelSetLogFd(open(path_.c_str(), O_RDWR | O_CREAT | O_APPEND | O_TRUNC | O_CLOEXEC, 0600));
    fakes.DravikGetStack = [this](int tid, char* buffer) {
      EXPECT_EQ(prctl(PR_GET_DUMPABLE), 1);
      asked_.push_back(tid);
      return snprintf(buffer, 4096, "%s", stack_.c_str()) < 0;
    };
    // An emulator has a thread of its own here.
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
      const int tid = std::stoi(entry.path().filename());
      if (tid != watched_.tid() && tid != gettid()) tids_.push_back(tid);
    }
    std::sort(tids_.begin() + 1, tids_.end());
  }

  static constexpr size_t kBuffer = 4095;  // characters

  // What the file has, and what of the kernel stacks it should have.
  std::string File() const { return test_root::ReadFile(path_); }
  std::string Sections() const {
    std::string text;
    for (const int tid : tids_) {
      const std::string section = "\nkernel stack tid = " + std::to_string(tid) + "\n" + stack_;
      text += section.substr(0, kBuffer);
    }
    return text;
  }

  // The ids in the file's headers of user stacks.
  std::vector<int> Dumped() const {
    const std::string text = File();
    std::vector<int> tids;
    for (size_t at = 0; (at = text.find("tid = ", at)) != text.npos; at += 6) {
      tids.push_back(std::stoi(text.substr(at + 6)));
    }
    return tids;
  }

  ParkedThread other_{Sleep}, watched_{[](const auto&stop) { SleepBelow(stop); }}, another_{Sleep};
  std::vector<int> tids_ = {watched_.tid()};  // in their order
  std::vector<int> asked_;
  const std::string path_ = test_root::Path("/dumps.txt");
  std::string stack_ = "in_the_kernel\n";
};

TEST_F(StackDumps, UserStacksAreOfTheWatchedThreadThenOfTheOthersInOrderAndNotOfTheCaller) {
  QuorvelUserBacktrace(watched_.tid());
  EXPECT_EQ(Dumped(), tids_);
  EXPECT_EQ(File().find("\ntid = " + std::to_string(watched_.tid()) + "\n  #00 pc "), 0u);
  EXPECT_THAT(File(), testing::HasSubstr("\n  #63 pc "));
}

TEST_F(StackDumps, UserStacksAreEchoedLineByLine) {
  QuorvelUserBacktrace(watched_.tid());
  std::string echoed;
  for (const std::string& line : log_.Lines("E/QUORVEL: ")) {
    echoed += line + (line.back() == '\n' ? "" : "\n");
  }
  EXPECT_EQ(echoed, File());
}

TEST_F(StackDumps, AWatchedThreadThatIsGoneHasALineAndTheOthersFollow) {
  watched_.Stop();
  QuorvelUserBacktrace(watched_.tid());
  const std::string line = "Unwind failed: tid = " + std::to_string(watched_.tid()) + ": \n";
  EXPECT_EQ(File().find(line), 0u);
  EXPECT_EQ(Dumped(), tids_);
  EXPECT_THAT(log_.Lines("E/QUORVEL: "), testing::Contains(line));
}

TEST_F(StackDumps, WithoutAFileNoUserStackAndOneKernelStackIsWritten) {
  QuorvelDropLogInChild();
  QuorvelUserBacktrace(watched_.tid());
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
  QuorvelKernBacktrace(watched_.tid());
  EXPECT_THAT(log_.Lines("E/QUORVEL: "), testing::Contains(stack_));
}

TEST_F(StackDumps, AKernelStackIsOfItsThreadAndCutWhereTheBufferIsFullAndItsEchoWhereTheLogCutsIt) {
  constexpr size_t kMessage = 1023;
  const size_t space = kBuffer - (Sections().size() / tids_.size() - stack_.size());
  for (const size_t size : {size_t{1}, space - 1, space, space + 1, kBuffer, size_t{5000}}) {
    log_.Clear();
    asked_.clear();
    ASSERT_EQ(truncate(path_.c_str(), 0), 0);
    stack_.assign(size, 'k');
    QuorvelKernBacktrace(watched_.tid());
    EXPECT_EQ(asked_, tids_);
    EXPECT_TRUE(File() == Sections()) << size;
    EXPECT_THAT(log_.Lines("E/QUORVEL: "), testing::ElementsAre(stack_.substr(0, kMessage)));
  }
}

// The kernel shows a stack only to a dumpable process.
TEST_F(StackDumps, LeaveTheProcessAsDumpableAsItWas) {
  for (const int dumpable : {0, 1}) {
    prctl(PR_SET_DUMPABLE, dumpable);
    QuorvelKernBacktrace(watched_.tid());
    EXPECT_FALSE(asked_.empty());
    EXPECT_EQ(prctl(PR_GET_DUMPABLE), dumpable);
  }
}

TEST_F(StackDumps, LeaveAChildForkedMeanwhileAsDumpableAsItsParentWas) {
  SKIP_UNDER_EMULATION("a forked child may hang");
  InitWithoutMonitor();
  int dumpable = -1;
  fakes.DravikGetStack = [&](int, char*) {
    EXPECT_EQ(StatusInChild([] { _exit(prctl(PR_GET_DUMPABLE)); }), dumpable);
    return -1;
  };
  for (const int was : {0, 1}) {
    prctl(PR_SET_DUMPABLE, dumpable = was);
    QuorvelKernBacktrace(watched_.tid());
  }
}

}  // namespace
