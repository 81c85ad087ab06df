// The kernel and user stacks of an incident, and the threads whose stacks these are.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvel/quorvel.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <filesystem>

#include "log/kernel_backtrace.h"
#include "log/proctid.h"
#include "log/quorvel_log.h"
#include "log/user_backtrace.h"
#include "support/fakes.h"
#include "support/log_capture.h"
#include "support/parked_thread.h"
#include "support/test_root.h"

namespace {

using testing::ElementsAre;

class StackDumps : public testing::Test {
 protected:
  StackDumps() {
    QuorvelBeginLog(QUORVEL_FLAG_LOG | QUORVEL_FLAG_BACKTRACE);
    QuorvelSetLogFd(open(path_.c_str(), O_RDWR | O_CREAT | O_APPEND | O_TRUNC | O_CLOEXEC, 0600));
    fakes.DravikGetStack = [this](int, char* buffer) {
      EXPECT_EQ(prctl(PR_GET_DUMPABLE), 1);
      return snprintf(buffer, 4096, "%s", stack_.c_str()) < 0;
    };
    // An emulator has a thread of its own here.
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
      const int tid = std::stoi(entry.path().filename());
      if (tid != watched_.tid() && tid != gettid()) tids_.push_back(tid);
    }
    std::sort(tids_.begin() + 1, tids_.end());
  }
  ~StackDumps() override {
    close(QuorvelGetLogFd());
    QuorvelSetLogFd(-1);
  }

  // What the file has, and what of the kernel stacks it should have.
  std::string File() const { return test_root::ReadFile(path_); }
  std::string Sections() const {
    std::string text;
    for (const int tid : tids_) {
      const std::string section = "\nkernel stack tid = " + std::to_string(tid) + "\n" + stack_;
      text += section.substr(0, 4095);  // the buffer's room
    }
    return text;
  }

  static void Sleep(const std::atomic<bool>& stop) {
    while (!stop) usleep(1000);
  }
  ScopedFakes restore_;  // once the threads are gone, which call some of them
  ParkedThread other_{Sleep}, watched_{Sleep}, another_{Sleep};
  std::vector<int> tids_ = {watched_.tid()};  // in their order
  const std::string path_ = test_root::Path("/dumps.txt");
  std::string stack_ = "in_the_kernel\n";
  LogCapture log_;
};

TEST_F(StackDumps, WatchedThreadFirstThenTheOthersInOrderAndNeverTheCaller) {
  QuorvelUserBacktrace(watched_.tid());
  const std::string text = File();
  std::vector<int> found;
  for (size_t at = 0; (at = text.find("tid = ", at)) != text.npos; at += 6) {
    found.push_back(std::stoi(text.substr(at + 6)));
  }
  EXPECT_EQ(found, tids_);
  EXPECT_EQ(text.find("\ntid = " + std::to_string(watched_.tid()) + "\n  #00 pc "), 0u);
  std::string echoed;
  for (const LogLine& line : log_.Lines()) {
    if (line.tag == "QUORVEL") echoed += line.text + (line.text.back() == '\n' ? "" : "\n");
  }
  EXPECT_EQ(echoed, text);

  close(QuorvelGetLogFd());
  QuorvelSetLogFd(-1);
  log_.Clear();
  QuorvelUserBacktrace(watched_.tid());
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
  QuorvelKernBacktrace(watched_.tid());
  EXPECT_THAT(log_.Lines(ANDROID_LOG_ERROR), ElementsAre(Error(stack_)));
  EXPECT_EQ(File(), text) << "without a file only the kernel's echo is left";
}

TEST_F(StackDumps, AKernelStackIsCutWhereTheBufferIsFull) {
  const size_t room = 4095 - (Sections().size() / tids_.size() - stack_.size());
  for (const size_t size :
       {size_t{1}, room - 1, room, room + 1, size_t{4094}, size_t{4095}, size_t{5000}}) {
    log_.Clear();
    ASSERT_EQ(truncate(path_.c_str(), 0), 0);
    stack_.assign(size, 'k');
    QuorvelKernBacktrace(watched_.tid());
    EXPECT_TRUE(File() == Sections()) << size;
    EXPECT_THAT(log_.Lines(ANDROID_LOG_ERROR), ElementsAre(Error(stack_.substr(0, 4095))));
  }
}

TEST_F(StackDumps, TheProcessIsDumpableOnlyMeanwhileEvenIfItsThreadsCannotBeListed) {
  rlimit files;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &files), 0);
  for (const int dumpable : {0, 1}) {
    for (const rlim_t limit : {files.rlim_cur, rlim_t{0}}) {
      const rlimit limits = {limit, files.rlim_max};
      ASSERT_EQ(prctl(PR_SET_DUMPABLE, dumpable), 0);
      log_.Clear();
      setrlimit(RLIMIT_NOFILE, &limits);
      QuorvelKernBacktrace(watched_.tid());
      setrlimit(RLIMIT_NOFILE, &files);
      EXPECT_EQ(prctl(PR_GET_DUMPABLE), dumpable);
      EXPECT_EQ(log_.Has("Fail to get tids in pid "), limit == 0);
    }
  }
}

TEST(StackDumpsTest, ThreadsAreReadFromNamesThatAreTheirIds) {
  const struct {
    std::vector<const char*> names;
    int error;
    std::set<int> tids;
  } rows[] = {{{""}, 0, {}},
              {{"42", " 43", "0x1f", "0X2", "2147483647", "007"}, 0, {2, 7, 31, 42, 43, INT_MAX}},
              {{"0"}, ERANGE, {}},
              {{"-1"}, ERANGE, {}},
              {{"2147483648"}, ERANGE, {}},
              {{"12abc"}, EINVAL, {}},
              {{"0x"}, EINVAL, {}}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.names[0]);
    const LogCapture log;
    test_root::RemoveTree("/fake");
    for (const char* name : row.names) test_root::MakeEmptyDir(std::string("/fake/task/") + name);
    const android::base::unique_fd fd(open(test_root::Path("/fake").c_str(), O_RDONLY));
    std::set<int> tids = {1};
    errno = 0;
    EXPECT_EQ(GetProcessTidsFromProcPidFd(fd, &tids), row.error == 0);
    EXPECT_TRUE(errno == row.error || row.error == 0) << errno;
    EXPECT_EQ(tids, row.tids);
    EXPECT_EQ(log.Has(std::string("failed to parse task id: ") + row.names[0]), row.error != 0);
  }
}

}  // namespace
