// The Android log on standard error, and what it must not do to the process whose it is.

#include <android-base/stringprintf.h>
#include <android/log.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <termios.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "../platform/host/src/fork_child.h"
#include "support/library_test.h"
#include "support/surroundings.h"

namespace {

using testing::HasSubstr;

void Log(const std::string& text) {
  __android_log_print(ANDROID_LOG_ERROR, "TEST", "%s", text.c_str());
}

// Each test begins without the discarded lines of those before it and long after their waits, which
// count against its own.
class AndroidLog : public LibraryTest {
 protected:
  AndroidLog() {
    __android_log_set_logger(nullptr);  // they go to standard error
    ForgetDiscardedLinesInChild();
    static time_t later = 0;
    later += 1000;
    fakes.clock_gettime = [](clockid_t clock, timespec* now) {
      const long result = syscall(SYS_clock_gettime, clock, now);
      if (clock == CLOCK_MONOTONIC) now->tv_sec += later;
      return static_cast<int>(result);
    };
  }
  ~AndroidLog() override {
    dup2(own_stderr_, STDERR_FILENO);
    for (const int fd : {own_stderr_, reader_, writer_}) close(fd);
  }

  // From here on standard error is the end of a pipe, of which the test holds the other.
  void UsePipe() {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    Use(ends[0], ends[1]);
  }
  void UseFullPipe() {
    UsePipe();
    const int room = fcntl(reader_, F_SETPIPE_SZ, 4096);
    const std::string filling(static_cast<size_t>(room), 'x');
    ASSERT_EQ(write(writer_, filling.data(), filling.size()), room);
  }
  void UseTerminal() {
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_TRUE(grantpt(master) == 0 && unlockpt(master) == 0);
    Use(master, open(ptsname(master), O_RDWR | O_NOCTTY));
  }
  void Use(int reader, int writer) {
    close(std::exchange(reader_, reader));
    close(std::exchange(writer_, writer));
    ASSERT_NE(dup2(writer, STDERR_FILENO), -1);
  }
  // All that was written and has not been read yet.
  std::string ReadAll() {
    fcntl(reader_, F_SETFL, O_NONBLOCK);
    std::string text;
    char buffer[4096];
    for (ssize_t count; (count = read(reader_, buffer, sizeof(buffer))) > 0;) {
      text.append(buffer, static_cast<size_t>(count));
    }
    return text;
  }

  const int own_stderr_ = dup(STDERR_FILENO);
  int reader_ = -1, writer_ = -1;
};

TEST_F(AndroidLog, EveryLineOfAMessageHasTheLocalTimeTheIdsThePriorityAndTheTag) {
  UsePipe();
  const time_t now = time(nullptr);
  __android_log_print(ANDROID_LOG_INFO, "TEST", "one\n\n%d", 3);
  __android_log_print(ANDROID_LOG_WARN, "A_LONGER_TAG", "two\n");
  char minutes[32];
  strftime(minutes, sizeof(minutes), "%m-%d %H:%M", localtime(&now));
  const std::string ids = android::base::StringPrintf("%5d %5d", getpid(), gettid());
  const std::string text = ReadAll(), prefix = ":[0-9][0-9].[0-9][0-9][0-9] " + ids;
  const std::string info = ".*" + prefix + " I TEST    : ";
  EXPECT_THAT(text, testing::MatchesRegex(info + "one\n" + info + "\n" + info + "3\n.*" + prefix +
                                          " W A_LONGER_TAG: two\n"));
  EXPECT_THAT(text, HasSubstr(minutes));
}

TEST_F(AndroidLog, AMessageOfManyLinesIsOneWrite) {
  SKIP_UNDER_EMULATION("its pipes have no packets");
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_DIRECT), 0);  // whose reader gets one write at a time
  Use(ends[0], ends[1]);
  std::string lines;
  for (int i = 0; i < 60; ++i) lines += "0123456789\n";
  Log(lines);
  Log("another message");
  char packet[8192];
  const ssize_t size = read(reader_, packet, sizeof(packet));
  ASSERT_GT(size, 0);
  EXPECT_EQ(std::count(packet, packet + size, '\n'), 60);
}

// A reader that does not read; the parameter says of what.
class AndroidLogTest : public AndroidLog, public testing::WithParamInterface<std::string> {};

TEST_P(AndroidLogTest, ASilentReaderIsWaitedForOnlyAMomentAndTheMissingLinesAreCounted) {
  const bool old_kernel = GetParam() == "PipeOfAnOldKernel";
  const bool stopped = GetParam() == "StoppedTerminal";
  if (old_kernel && (Emulated() || kThreadSanitizer)) {
    GTEST_SKIP() << "no filter under emulation, no threads of a forked child under the sanitizer";
  }
  stopped || GetParam() == "Terminal" ? UseTerminal() : UsePipe();
  if (stopped) tcflow(STDERR_FILENO, TCOOFF);
  const int flags = fcntl(STDERR_FILENO, F_GETFL);
  const auto log_in_silence = [&] {
    EXPECT_TRUE(!old_kernel || RefuseNewCalls());
    std::thread threads[4];  // race for the last room
    const time_t begin = time(nullptr);
    for (std::thread& thread : threads) {
      thread = std::thread([] {
        for (int i = 0; i < 500; ++i) Log(std::string(90, 'x'));
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_LE(time(nullptr) - begin, 5);
    EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFL), flags);
    if (stopped) tcflow(STDERR_FILENO, TCOON);
    const std::string before = ReadAll();
    Log("read again");
    const std::string after = ReadAll();
    const auto written = std::count(before.begin(), before.end(), '\n');
    const std::string missing = std::to_string(2000 - written) + " lines of this log were disc";
    EXPECT_LT(after.find(missing), after.find("read again\n"));
  };
  old_kernel ? RunInChild(log_in_silence) : log_in_silence();
}

INSTANTIATE_TEST_SUITE_P(, AndroidLogTest,
                         testing::Values("Pipe", "PipeOfAnOldKernel", "Terminal",
                                         "StoppedTerminal"),
                         [](const auto& silence) { return silence.param; });

// The pipe is another user's, so that the log cannot open it for itself; the host uses the last of
// its space between the log's look and its write.
TEST_F(AndroidLog, AHostThatFillsThePipeMeanwhileBlocksNoMessage) {
  if (Emulated() || kThreadSanitizer) GTEST_SKIP() << "no filter, or no threads of a forked child";
  RunInChild([this] {
    ASSERT_TRUE(RefuseWritesWithoutSignalAndOpens());
    for (int i = 0; i < 1000; ++i) {
      UsePipe();
      std::thread host([] {
        static char page[4096];
        const iovec part = {page, sizeof(page)};
        while (pwritev2(STDERR_FILENO, &part, 1, -1, RWF_NOWAIT) > 0) {
        }
      });
      for (int line = 0; line < 20; ++line) Log("x");
      host.join();
    }
  });
}

TEST_F(AndroidLog, OneMessageWaitsForAReaderOnlyATenthOfASecond) {
  UseFullPipe();
  const auto begin = std::chrono::steady_clock::now();
  Log("for nobody");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(700));
}

TEST_F(AndroidLog, ASignalDoesNotEndTheWaitForAReader) {
  UseFullPipe();
  static int full_pipe;
  full_pipe = reader_;
  RunInChild([this] {
    signal(SIGALRM, [](int) {
      char drained[1 << 16];
      if (read(full_pipe, drained, sizeof(drained)) < 0) _exit(3);
    });
    const itimerval soon = {{0, 0}, {0, 1000}};
    setitimer(ITIMER_REAL, &soon, nullptr);
    Log("after the signal");
    EXPECT_THAT(ReadAll(), HasSubstr("after the signal\n"));
  });
}

TEST_F(AndroidLog, AChildReportsNoLinesThatItsParentDiscarded) {
  UsePipe();
  close(std::exchange(reader_, -1));
  Log("into a pipe without a reader");
  UsePipe();
  RunInChild([this] {
    Log("of the child");
    EXPECT_THAT(ReadAll(), testing::Not(HasSubstr("discarded")));
  });
  Log("of the parent");
  EXPECT_THAT(ReadAll(), HasSubstr(" 1 lines of this log were discarded"));
}

// Where none is pending before, one of the process, one of the thread.
TEST_F(AndroidLog, AReaderThatHasLeftEndsNothingAndLeavesThePendingSignalAsItWas) {
  for (const bool old_kernel : {false, !Emulated()}) {
    for (const int target : {0, getpid(), -1}) {
      UsePipe();
      close(std::exchange(reader_, -1));
      RunInChild([&] {
        SCOPED_TRACE(target);
        EXPECT_TRUE(!old_kernel || RefuseNewCalls());
        Log("with the signal's default action");
        sigset_t mask;
        sigemptyset(&mask);
        sigaddset(&mask, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &mask, nullptr);
        if (target != 0) target > 0 ? kill(getpid(), SIGPIPE) : raise(SIGPIPE);
        Log("with the signal blocked");
        const timespec at_once = {0, 0};
        const int before = target != 0 ? SIGPIPE : -1;
        EXPECT_EQ(sigtimedwait(&mask, nullptr, &at_once), before);
        EXPECT_EQ(sigtimedwait(&mask, nullptr, &at_once), -1);
      });
    }
  }
}

TEST_F(AndroidLog, AFileAtItsSizeLimitEndsNothing) {
  const std::string path = test_root::Path("/data/full");
  test_root::WriteFile(path, "");
  Use(-1, open(path.c_str(), O_WRONLY | O_APPEND));
  RunInChild([] {
    const rlimit none = {0, 0};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &none), 0);
    Log("into a full file");
  });
}

TEST_F(AndroidLog, AFileOrSocketThatTookTheNumberIsLeftAlone) {
  const std::string path = test_root::Path("/data/precious");
  test_root::WriteFile(path, "untouched");
  Use(-1, open(path.c_str(), O_RDWR));
  Log("into a file of the host's");
  EXPECT_EQ(test_root::ReadFile(path), "untouched");

  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  Use(ends[0], ends[1]);
  Log("into a connection of the host's");
  EXPECT_EQ(ReadAll(), "");
  UsePipe();
  Log("into a pipe");
  EXPECT_THAT(ReadAll(), HasSubstr(" W log     : 2 lines of this log were discarded"));
}

TEST_F(AndroidLog, AFileOpenedForAppendingIsWrittenToAndNoSignalStaysBlocked) {
  const std::string path = test_root::Path("/data/turned_over.log");
  Use(-1, open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600));
  Log("into the next log of a daemon");
  EXPECT_THAT(test_root::ReadFile(path), HasSubstr("into the next log of a daemon\n"));
  sigset_t blocked;
  pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  EXPECT_EQ(sigismember(&blocked, SIGPIPE), 0);
}

}  // namespace
