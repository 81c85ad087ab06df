// The kernel and user stacks of an incident, and the threads whose stacks these are.

#include <gmock/gmock.h>
#include <quorvel/quorvel.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <filesystem>

#include "log/kernel_backtrace.h"
#include "log/proctid.h"
#include "log/quorvel_log.h"
#include "log/user_backtrace.h"
#include "support/fakes.h"
#include "support/log_capture.h"
#include "support/parked_thread.h"
#include "support/surroundings.h"
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
  for (const std::string& line : log_.Lines("E/QUORVEL: ")) {
    echoed += line + (line.back() == '\n' ? "" : "\n");
  }
  EXPECT_EQ(echoed, text);
}

TEST_F(StackDumps, AKernelStackIsCutWhereTheBufferIsFullAndItsEchoWhereTheLogCutsIt) {
  const size_t room = 4095 - (Sections().size() / tids_.size() - stack_.size());
  for (const size_t size :
       {size_t{1}, room - 1, room, room + 1, size_t{4094}, size_t{4095}, size_t{5000}}) {
    log_.Clear();
    ASSERT_EQ(truncate(path_.c_str(), 0), 0);
    stack_.assign(size, 'k');
    QuorvelKernBacktrace(watched_.tid());
    EXPECT_TRUE(File() == Sections()) << size;
    EXPECT_THAT(log_.Lines("E/QUORVEL: "), ElementsAre(stack_.substr(0, 1023)));
  }
}

TEST_F(StackDumps, TheProcessIsDumpableOnlyMeanwhileEvenIfItsThreadsCannotBeListed) {
  fakes.pthread_create = [](void* (*)(void*)) { return 0; };
  quorvel_init();
  int dumpable_children = 0;
  fakes.DravikGetStack = [&](int, char*) {
    const pid_t child = Emulated() ? -1 : fork();
    if (child == 0) _exit(prctl(PR_GET_DUMPABLE));
    int status = 0;
    waitpid(child, &status, 0);
    dumpable_children += status != 0;
    return -1;
  };
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
      EXPECT_EQ(dumpable_children != 0, dumpable != 0 && !Emulated());
      EXPECT_EQ(log_.Has("Fail to get tids in pid "), limit == 0);
    }
  }
}

TEST(StackDumpsTest, ThreadsAreReadFromNamesThatAreTheirIds) {
  const char* const names[] = {"42", " 43", "0x1f", "007",        "2147483647",
                               "0",  "-1",  "0x",   "2147483648", "12abc"};
  const int results[] = {42, 43, 31, 7, INT_MAX, -ERANGE, -ERANGE, -EINVAL, -ERANGE, -EINVAL};
  for (size_t i = 0; i < std::size(names); ++i) {
    const std::string name = names[i];
    const int result = results[i];
    SCOPED_TRACE(name);
    const LogCapture log;
    test_root::RemoveTree("/fake");
    test_root::MakeEmptyDir("/fake/task/" + name);
    const android::base::unique_fd fd(open(test_root::Path("/fake").c_str(), O_RDONLY));
    std::set<int> tids;
    errno = 0;
    EXPECT_EQ(GetProcessTidsFromProcPidFd(fd, &tids), result > 0);
    EXPECT_EQ(tids.empty() ? -errno : *tids.begin(), result);
    EXPECT_EQ(log.Has("failed to parse task id: " + name), result < 0);
  }
}

}  // namespace
