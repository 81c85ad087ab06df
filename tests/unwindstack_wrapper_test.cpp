#include "unwind/unwindstack_wrapper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <ucontext.h>

#include <cinttypes>

#include "support/log_capture.h"
#include "support/parked_thread.h"
#include "unwind/unwindstack_wrapper_thread.h"

// Set once a thread has come to the end of the functions below.
static std::atomic<bool> g_arrived{false};

static void Arrive(const std::atomic<bool>& stop) {
  g_arrived = true;
  while (!stop) usleep(1000);
}

static void AwaitArrival() {
  while (!g_arrived.exchange(false)) usleep(1000);
}

// Known by name in the stacks below; plain C names, so that they need no demangling.
extern "C" {

__attribute__((noinline)) void quorvel_test_inner(const std::atomic<bool>* stop) {
  Arrive(*stop);
  asm volatile("");  // no tail call
}

__attribute__((noinline)) void quorvel_test_outer(const std::atomic<bool>* stop) {
  quorvel_test_inner(stop);
  asm volatile("");  // no tail call
}

__attribute__((noinline)) int quorvel_test_recurse(int depth, const std::atomic<bool>* stop) {
  if (depth == 0) {
    Arrive(*stop);
    return 0;
  }
  int below = quorvel_test_recurse(depth - 1, stop);
  asm volatile("" : "+r"(below));  // a real call, not a loop
  return below + 1;
}

}  // extern "C"

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using Entry = unwindstack_wrapper_thread;

constexpr char kTimedOut[] = "Timed out waiting for signal handler to get ucontext data";

std::vector<std::string> Names(const unwindstack_wrapper& unwinder) {
  std::vector<std::string> names;
  for (const auto& frame : unwinder.frames) names.push_back(frame.function_name.c_str());
  return names;
}

std::string Text(unwindstack_wrapper& unwinder) {
  std::string text;
  for (size_t i = 0; i < unwinder.num_frames; ++i) text += unwinder.frame_string(i) + "\n";
  return text;
}

void NoHandler(int, siginfo_t*, void*) {}

class UnwindstackWrapper : public testing::Test {
 protected:
  LogCapture log_;
};

TEST_F(UnwindstackWrapper, AnotherThreadWithItsFunctionsInOrder) {
  ParkedThread thread([](const auto& stop) { quorvel_test_outer(&stop); });
  AwaitArrival();
  unwindstack_wrapper unwinder;
  ASSERT_TRUE(unwinder.unwind(thread.tid(), nullptr, 64)) << unwinder.error;
  const std::vector<std::string> names = Names(unwinder);
  const auto inner = std::find(names.begin(), names.end(), "quorvel_test_inner");
  ASSERT_LT(inner + 1, names.end());
  EXPECT_EQ(*(inner + 1), "quorvel_test_outer");
  EXPECT_EQ(unwinder.num_frames, unwinder.frames.size());
  EXPECT_FALSE(unwinder.is_32bit);
  EXPECT_THAT(log_.Lines(), IsEmpty());
  // A second exchange meets the entry that the first handler left, and steps from 0 again.
  ASSERT_TRUE(unwinder.unwind(thread.tid(), nullptr, 64));
  EXPECT_THAT(Names(unwinder), Contains("quorvel_test_outer")) << Text(unwinder);
}

TEST_F(UnwindstackWrapper, TheCallingThreadWithoutASignalAndFromUnwindItself) {
  struct sigaction refuse = {};
  struct sigaction old = {};
  refuse.sa_handler = [](int) { abort(); };
  ASSERT_EQ(sigaction(33, &refuse, &old), 0);
  unwindstack_wrapper unwinder;
  ASSERT_TRUE(unwinder.unwind(gettid(), nullptr, 64));
  sigaction(33, &old, nullptr);
  ASSERT_GE(unwinder.num_frames, 2u);
  EXPECT_STREQ(unwinder.frames[0].function_name.c_str(),
               "_ZN19unwindstack_wrapper6unwindEiP10ucontext_ti");
  EXPECT_THAT(unwinder.frames[1].function_name.c_str(), HasSubstr("TheCallingThreadWithout"));
  ASSERT_TRUE(unwinder._unwind_ucontext_current());
  EXPECT_STREQ(unwinder.frames[0].function_name.c_str(),
               "_ZN19unwindstack_wrapper24_unwind_ucontext_currentEv");
}

TEST_F(UnwindstackWrapper, AGivenContextWinsOverTheThreadId) {
  ucontext_t here;
  getcontext(&here);
  unwindstack_wrapper unwinder;
  ASSERT_TRUE(unwinder.unwind(-1, &here, 64));
  EXPECT_THAT(unwinder.frames[0].function_name.c_str(), HasSubstr("AGivenContextWins"));
}

TEST_F(UnwindstackWrapper, FrameLimits) {
  ParkedThread thread([](const auto& stop) { quorvel_test_recurse(200, &stop); });
  AwaitArrival();
  unwindstack_wrapper unwinder;
  for (const int limit : {1, 0, -1, 65, 1000}) {
    EXPECT_FALSE(unwinder.unwind(thread.tid(), nullptr, limit)) << limit;
    EXPECT_EQ(unwinder.max_frames, 64);
  }
  for (const int limit : {2, 63, 64}) {
    ASSERT_TRUE(unwinder.unwind(thread.tid(), nullptr, limit)) << limit;
    EXPECT_EQ(unwinder.num_frames, static_cast<size_t>(limit));
    EXPECT_EQ(unwinder.frames.size(), unwinder.num_frames);
  }
  EXPECT_EQ(unwinder.error, "");
}

TEST_F(UnwindstackWrapper, AThreadThatIsGone) {
  ParkedThread thread([](const auto&) {});
  thread.Stop();
  struct sigaction mine = {};
  struct sigaction old = {};
  mine.sa_sigaction = NoHandler;
  mine.sa_flags = SA_SIGINFO;
  ASSERT_EQ(sigaction(33, &mine, &old), 0);
  Entry* const list = Entry::list_;
  unwindstack_wrapper unwinder;
  EXPECT_FALSE(unwinder.unwind(thread.tid(), nullptr, 64));
  EXPECT_EQ(unwinder.error, "");
  EXPECT_THAT(log_.Lines(),
              ElementsAre(LogLine{ANDROID_LOG_ERROR, "unwindstack_wrapper",
                                  "_unwind_locked: cannot send signal 33 to " +
                                      std::to_string(thread.tid()) + ", No such process",
                                  ""}));
  EXPECT_EQ(Entry::list_, list) << "an entry that no handler found goes at once";
  struct sigaction seen = {};
  sigaction(33, &old, &seen);
  EXPECT_EQ(seen.sa_sigaction, NoHandler);
}

TEST_F(UnwindstackWrapper, FailuresKeepTheFramesOfTheLastSuccess) {
  ParkedThread thread([](const auto& stop) { quorvel_test_outer(&stop); });
  AwaitArrival();
  unwindstack_wrapper unwinder;
  ASSERT_TRUE(unwinder.unwind(thread.tid(), nullptr, 64));
  const std::vector<std::string> names = Names(unwinder);
  EXPECT_FALSE(unwinder._unwind_ucontext_with_reg(nullptr));
  EXPECT_EQ(unwinder.error, "Fail to get registers");
  EXPECT_EQ(Names(unwinder), names);
  EXPECT_EQ(unwinder.frame_string(unwinder.num_frames), "");
  EXPECT_NE(unwinder.frame_string(0), "");
}

TEST_F(UnwindstackWrapper, TwoUnwindersTakeTurns) {
  ParkedThread thread([](const auto& stop) { quorvel_test_outer(&stop); });
  const auto unwind_often = [&] {
    for (int i = 0; i < 50; ++i) {
      unwindstack_wrapper unwinder;
      EXPECT_TRUE(unwinder.unwind(thread.tid(), nullptr, 64)) << unwinder.error;
    }
  };
  std::thread other(unwind_often);
  unwind_often();
  other.join();
}

TEST_F(UnwindstackWrapper, TheInterruptedThreadNoticesNothing) {
  std::atomic<int> wrong{0};
  ParkedThread thread([&](const auto& stop) {
    int ends[2];
    if (pipe(ends) != 0) return;
    char byte;
    while (!stop) {
      errno = 4711;
      for (volatile int spin = 0; spin < 20000;) spin = spin + 1;
      if (errno != 4711) ++wrong;
      if (write(ends[1], "x", 1) != 1 || read(ends[0], &byte, 1) != 1) ++wrong;
    }
    close(ends[0]);
    close(ends[1]);
  });
  for (int i = 0; i < 200; ++i) {
    unwindstack_wrapper unwinder;
    EXPECT_TRUE(unwinder.unwind(thread.tid(), nullptr, 64)) << unwinder.error;
  }
  EXPECT_EQ(wrong, 0);
}

// The unwinder gives up after five seconds; the signal is still on its way and finds nobody.
TEST(UnwindstackWrapperTimeout, AThreadThatBlocksTheSignal) {
  LogCapture log;
  std::atomic<bool> unblock{false};
  std::atomic<bool> unblocked{false};
  ParkedThread thread([&](const auto& stop) {
    BlockUnwindSignal(true);
    while (!unblock) usleep(1000);
    BlockUnwindSignal(false);
    unblocked = true;
    while (!stop) usleep(1000);
  });
  usleep(20000);
  unwindstack_wrapper unwinder;
  EXPECT_FALSE(unwinder.unwind(thread.tid(), nullptr, 64));
  EXPECT_EQ(unwinder.error, kTimedOut);
  EXPECT_THAT(log.Lines(),
              ElementsAre(testing::Field(&LogLine::text, HasSubstr("for value 1 failed: ")),
                          testing::Field(&LogLine::text,
                                         HasSubstr(std::string("_unwind_locked: ") + kTimedOut))));
  struct sigaction now = {};
  sigaction(33, nullptr, &now);
  EXPECT_EQ(now.sa_handler, SIG_IGN);
  unblock = true;
  while (!unblocked) usleep(1000);
  EXPECT_TRUE(unwinder.unwind(thread.tid(), nullptr, 64)) << "the thread answers again";
  // The C library needs the same signal for this, on every thread.
  EXPECT_EQ(setgid(getgid()), 0);
}

TEST(UnwindstackWrapperTimeout, AThreadThatGoesAfterTheSignalWasSent) {
  LogCapture log;
  ParkedThread thread([&](const auto&) {
    BlockUnwindSignal(true);
    sleep(2);
  });
  usleep(20000);
  unwindstack_wrapper unwinder;
  EXPECT_FALSE(unwinder.unwind(thread.tid(), nullptr, 64));
  EXPECT_EQ(unwinder.error, "target thread does not exist");
  EXPECT_THAT(log.Lines(), SizeIs(1));
}

// A frame record of the platform's library, and the line it makes.
TEST(UnwindstackWrapperText, FramesAsText) {
  unwindstack_wrapper unwinder;
  EXPECT_EQ(unwinder.frame_string(0), "");
  unwindstack::FrameData frame = {};
  const auto line = [&](bool is_32bit = false) {
    unwinder.frames = {frame};
    unwinder.num_frames = 1;
    unwinder.is_32bit = is_32bit;
    return unwinder.frame_string(0);
  };
  frame.num = 7;
  frame.rel_pc = 0xabc;
  EXPECT_EQ(line(), "  #07 pc 0000000000000abc  <unknown>");
  EXPECT_EQ(line(true), "  #07 pc 00000abc  <unknown>");
  frame.map_name = "/lib/x.so";
  frame.map_elf_start_offset = 0x1000;
  EXPECT_EQ(line(), "  #07 pc 0000000000000abc (offset 0x1000)  <unknown>");
  frame.map_start = 0x7f00;
  frame.map_end = 0x8f00;
  frame.num = 100;
  EXPECT_EQ(line(), "  #100 pc 0000000000000abc (offset 0x1000)  /lib/x.so");
  frame.function_name = "_Z1fv";
  frame.map_elf_start_offset = 0;
  EXPECT_EQ(line(), "  #100 pc 0000000000000abc  /lib/x.so (_Z1fv)");
  frame.function_offset = 12;
  frame.map_name = "";
  EXPECT_EQ(line(), "  #100 pc 0000000000000abc  <anonymous:7f00> (_Z1fv+12)");
}

}  // namespace
