// What tests, demos and tools rely on in the layer that stands in for the device.

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <android/log.h>
#include <bounds_checked.h>
#include <device_path.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <kelvane.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/system_properties.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "support/log_capture.h"
#include "support/test_root.h"

namespace {

using testing::MatchesRegex;
using testing::StartsWith;

std::string Get(const char* name) {
  char value[PROP_VALUE_MAX];
  const int length = __system_property_get(name, value);
  EXPECT_EQ(static_cast<size_t>(length), strlen(value));
  return value;
}

TEST(HostLayer, PropertiesKeepTheirLimits) {
  const std::string longest(91, 'v');
  EXPECT_EQ(__system_property_set("a.b", longest.c_str()), 0);
  EXPECT_EQ(Get("a.b"), longest);
  EXPECT_EQ(__system_property_set("a.b", (longest + "v").c_str()), -1);
  EXPECT_EQ(Get("a.b"), longest);
  EXPECT_EQ(__system_property_set("", "x"), -1);
  EXPECT_EQ(__system_property_set("../escape", "x"), -1);
  EXPECT_EQ(__system_property_set("ro.once", "1"), 0);
  EXPECT_EQ(__system_property_set("ro.once", "2"), -1);
  EXPECT_EQ(Get("ro.once"), "1");
  test_root::SetProperty("by.hand", "0\n");
  EXPECT_EQ(Get("by.hand"), "0");
  test_root::SetProperty("by.hand", std::string(200, 'w').c_str());
  EXPECT_EQ(Get("by.hand"), std::string(91, 'w'));
  EXPECT_EQ(Get("not.set"), "");
  EXPECT_THAT(test_root::List("/dev/__properties__/"),
              testing::ElementsAre("a.b", "by.hand", "ro.once"));
}

TEST(HostLayer, NoReaderEverSeesHalfAProperty) {
  const std::string values[] = {std::string(91, 'a'), "b"};
  __system_property_set("torn", values[0].c_str());
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    for (int i = 0; !stop; ++i) __system_property_set("torn", values[i % 2].c_str());
  });
  for (int i = 0; i < 2000; ++i) {
    const std::string seen = Get("torn");
    ASSERT_TRUE(seen == values[0] || seen == values[1]) << seen;
  }
  stop = true;
  writer.join();
}

// Everything that a child process writes to stderr.
std::string StderrOf(const std::function<void()>& body) {
  int ends[2];
  EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const pid_t child = fork();
  if (child == 0) {
    dup2(ends[1], STDERR_FILENO);
    body();
    _exit(0);
  }
  close(ends[1]);
  std::string text;
  char part[4096];
  for (ssize_t n; (n = read(ends[0], part, sizeof(part))) > 0;) {
    text.append(part, static_cast<size_t>(n));
  }
  close(ends[0]);
  waitpid(child, nullptr, 0);
  return text;
}

TEST(HostLayer, LogLinesLookLikeLogcatsAndAreNotCut) {
  const std::string stamp = "[0-9][0-9]-[0-9][0-9] [0-9:]+\\.[0-9][0-9][0-9] +[0-9]+ +[0-9]+ ";
  EXPECT_THAT(StderrOf([] { __android_log_print(ANDROID_LOG_ERROR, "QUORVEL", "one\ntwo\n"); }),
              MatchesRegex(stamp + "E QUORVEL : one\n" + stamp + "E QUORVEL : two\n"));
  const std::string text(4096, 'x');
  EXPECT_THAT(StderrOf([&] { __android_log_print(ANDROID_LOG_INFO, "T", "%s", text.c_str()); }),
              testing::EndsWith(": " + text + "\n"));
}

TEST(HostLayer, ALogThatNobodyReadsAnyMoreRaisesNoSignal) {
  const pid_t child = fork();
  if (child == 0) {
    int ends[2];
    if (pipe(ends) != 0) _exit(1);
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    __android_log_print(ANDROID_LOG_ERROR, "T", "text");
    _exit(0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

TEST(HostLayer, LogStatementsKeepErrnoAndNameTheirSource) {
  LogCapture log;
  errno = ENOENT;
  PLOG(ERROR) << "cannot";
  EXPECT_EQ(errno, ENOENT);
  ASSERT_EQ(log.Lines().size(), 1u);
  EXPECT_EQ(log.Lines()[0].text, "cannot: No such file or directory");
  EXPECT_EQ(log.Lines()[0].file, "host_layer_test.cpp");
  const auto old = android::base::SetMinimumLogSeverity(android::base::FATAL);
  LOG(ERROR) << "not wanted";
  android::base::SetMinimumLogSeverity(old);
  EXPECT_EQ(log.Lines().size(), 1u);
}

TEST(HostLayer, BoundsCheckedCallsRefuseWhatDoesNotFit) {
  char text[8] = "abc";
  EXPECT_EQ(strncat_s(text, sizeof(text), "defgh", 4), 0);
  EXPECT_STREQ(text, "abcdefg");
  EXPECT_NE(strncat_s(text, sizeof(text), "h", 1), 0);
  EXPECT_EQ(snprintf_s(text, sizeof(text), 7, "%s", "1234567"), 7);
  EXPECT_EQ(snprintf_s(text, sizeof(text), 6, "%s", "1234567"), -1);
  EXPECT_EQ(snprintf_s(text, sizeof(text), 100, "%s", "12345678"), -1);
  EXPECT_NE(memset_s(text, 4, 0, 5), 0);
  EXPECT_NE(memcpy_s(text, 4, "12345", 5), 0);
}

TEST(HostLayer, IdsAreRightOnEveryThreadAndAfterFork) {
  const auto right = [] {
    return gettid() == static_cast<pid_t>(syscall(SYS_gettid)) &&
           getpid() == static_cast<pid_t>(syscall(SYS_getpid));
  };
  EXPECT_TRUE(right());
  std::thread([&] { EXPECT_TRUE(right()); }).join();
  const pid_t child = fork();
  if (child == 0) _exit(right() ? 0 : 1);
  int status;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

std::atomic<int> g_signalled{0};

TEST(HostLayer, Signal33BelongsToTheLibrary) {
  struct sigaction action = {};
  struct sigaction old = {};
  action.sa_handler = [](int) { ++g_signalled; };
  ASSERT_EQ(sigaction(33, &action, &old), 0);
  sigset_t set;
  sigset_t was;
  sigemptyset(&set);
  *reinterpret_cast<unsigned long*>(&set) = 1ul << 32;
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &set, &was), 0);
  ASSERT_EQ(tgkill(getpid(), gettid(), 33), 0);
  EXPECT_EQ(g_signalled, 0);
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &was, nullptr), 0);
  EXPECT_EQ(g_signalled, 1);
  struct sigaction seen = {};
  ASSERT_EQ(sigaction(33, &old, &seen), 0);
  EXPECT_EQ(seen.sa_handler, action.sa_handler);
}

TEST(HostLayer, KernelStacksAreCutAndAThreadThatIsGoneFails) {
  char text[4096] = {};
  EXPECT_EQ(DravikGetStack(gettid(), text), 0);
  EXPECT_THAT(text, StartsWith("["));
  int gone = 0;
  std::thread([&] { gone = gettid(); }).join();
  EXPECT_NE(DravikGetStack(gone, text), 0);
}

TEST(HostLayer, PathsUnderTheRootAreTheDevices) {
  const std::string root = getenv("QUORVEL_HOST_ROOT");
  EXPECT_EQ(DevicePath("/data/x"), root + "/data/x");
  EXPECT_EQ(PathOnDevice(root + "/vendor/bin/x"), "/vendor/bin/x");
  EXPECT_EQ(PathOnDevice(root + "x/vendor"), root + "x/vendor");
}

}  // namespace
