// Incidents with stacks, one after the other, in a process full of hostile threads.

#include <android/log.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <quorvel/quorvel.h>
#include <signal.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <map>
#include <sstream>
#include <string>
#include <thread>

#include "log/incident_close.h"
#include "log/incident_header.h"
#include "log/kernel_backtrace.h"
#include "log/log_file.h"
#include "log/quorvel_log.h"
#include "log/user_backtrace.h"
#include "stress/storm.h"
#include "support/emulated.h"
#include "support/test_root.h"
#include "unwind/unwindstack_wrapper.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kSilenceSeconds = 5;
constexpr double kWorkSeconds = kSanitizer ? 30 : 10;
constexpr size_t kMaxFrames = 64;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Told by a thread that was parked, or by the unwinder of one that went on before it was let go.
std::atomic<int> g_bad_partings{0};

void NoteBadPartings(const __android_log_message* message) {
  if (strstr(message->message, "unwind thread to indicate it completed") != nullptr ||
      strstr(message->message, "handler to indicate it finished") != nullptr) {
    ++g_bad_partings;
  }
}

struct Section {
  int times = 0;
  bool failed = false;
  size_t frames = 0;
  std::string text;
};

std::map<int, Section> ReadSections(const std::string& path) {
  std::istringstream lines(test_root::ReadFile(path));
  std::map<int, Section> sections;
  Section* section = nullptr;
  for (std::string line; std::getline(lines, line);) {
    int tid = 0;
    const bool failed = sscanf(line.c_str(), "Unwind failed: tid = %d:", &tid) == 1;
    if (failed || sscanf(line.c_str(), "tid = %d", &tid) == 1) {
      section = &sections[tid];
      ++section->times;
      section->failed = failed;
    } else if (section != nullptr && line.compare(0, 3, "  #") == 0) {
      ++section->frames;
    }
    if (section != nullptr) section->text += line + "\n";
  }
  return sections;
}

// The whole response to an expired watch, but for its rate limit.
std::map<int, Section> MakeIncident(int tid, bool with_header) {
  QuorvelInitLog(QUORVEL_FLAG_LOG | QUORVEL_FLAG_BACKTRACE, false);
  if (with_header) QuorvelInsertLogTitle(tid, "storm", time(nullptr));
  QuorvelFlushLog();
  QuorvelKernBacktrace(tid);
  QuorvelUserBacktrace(tid);
  const int fd = dup(QuorvelGetLogFd());  // children's incidents may have it cleaned up
  QuorvelEndLog();
  const std::map<int, Section> sections = ReadSections("/proc/self/fd/" + std::to_string(fd));
  close(fd);
  return sections;
}

struct Tally {
  int incidents = 0, stacks = 0, silent = 0;
  double longest = 0;
};

void StormOnce(const std::vector<Hostile*>& threads, Tally* tally) {
  const auto start = Clock::now();
  const Hostile& watched = *threads[static_cast<size_t>(tally->incidents++) % threads.size()];
  const std::map<int, Section> sections = MakeIncident(watched.tid, true);
  const double seconds = SecondsSince(start);
  int silent = 0;
  for (const auto& [tid, section] : sections) {
    EXPECT_EQ(section.times, 1) << "thread " << tid;
    EXPECT_LE(section.frames, kMaxFrames) << section.text;
    silent += section.failed;
  }
  EXPECT_LT(seconds, kWorkSeconds + silent * kSilenceSeconds);
  for (const Hostile* thread : threads) {
    SCOPED_TRACE(thread->kind->name);
    const auto found = sections.find(thread->tid);
    ASSERT_NE(found, sections.end()) << "thread " << thread->tid << " is not accounted for";
    EXPECT_FALSE(found->second.failed) << found->second.text;
    EXPECT_GE(found->second.frames, 1u);
    if (thread->kind->shows != nullptr) {
      EXPECT_NE(found->second.text.find(thread->kind->shows), std::string::npos)
          << found->second.text;
    }
  }
  tally->stacks += static_cast<int>(sections.size());
  tally->silent += silent;
  tally->longest = std::max(tally->longest, seconds);
}

TEST(IncidentStorm, EveryThreadIsAccountedForAndGoesOnAsIfNothingHadHappened) {
  SKIP_UNDER_EMULATION("its own thread costs each incident 5 s; forked children cannot go on");
  const ScopedDeadline deadline(StormSeconds() + 90);
  __android_log_set_logger(NoteBadPartings);
  quorvel_init();
  const std::vector<Hostile*> threads = StartHostileThreads();
  Tally tally;
  for (const auto start = Clock::now(); SecondsSince(start) < StormSeconds();) {
    StormOnce(threads, &tally);
    if (HasFailure()) break;
  }
  for (const Hostile* thread : threads) EXPECT_GT(thread->steps, 2u) << thread->kind->name;
  JoinHostileThreads(threads);
  EXPECT_EQ(g_broken_promises, 0);
  EXPECT_EQ(g_bad_partings, 0);
  printf("%d incidents, %d stacks, %d threads silent, longest incident %.2f s\n", tally.incidents,
         tally.stacks, tally.silent, tally.longest);
  EXPECT_GT(tally.incidents, 0);
}

std::atomic<int> g_victim{0};

// Cancelled in a call that may be, or anywhere at all.
void* WaitForCancel(void* anywhere) {
  if (anywhere != nullptr) pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
  g_victim = gettid();
  for (;;) {
    if (anywhere == nullptr) pause();
  }
}

// A cancellation that comes while the thread is held for its stack waits until it goes on; it must
// neither take the thread out of the unwinder's hands nor wait for it there for ever.
TEST(CancelledThread, EndsAlthoughItIsBeingUnwound) {
  if (kThreadSanitizer) GTEST_SKIP() << "the thread sanitizer's own frames cannot be unwound";
  const ScopedDeadline deadline(StormSeconds() + 60);
  __android_log_set_logger(NoteBadPartings);
  std::atomic<bool> done{false};
  std::thread canceller([&done] {
    const auto start = Clock::now();
    for (useconds_t i = 0; SecondsSince(start) < StormSeconds(); ++i) {
      pthread_t thread;
      g_victim = 0;
      pthread_create(&thread, nullptr, WaitForCancel, i % 2 != 0 ? &thread : nullptr);
      while (g_victim == 0) std::this_thread::yield();
      usleep(i * 37 % 800);
      pthread_cancel(thread);
      struct timespec until = {time(nullptr) + 20, 0};
      if (pthread_timedjoin_np(thread, nullptr, &until) == 0) continue;
      ADD_FAILURE() << "thread " << g_victim << " does not end";
      break;
    }
    done = true;
  });
  int unwound = 0;
  unwindstack_wrapper unwinder;
  while (!done) unwound += unwinder.unwind(g_victim, nullptr, 64);
  canceller.join();
  EXPECT_GT(unwound, 0);
  EXPECT_EQ(g_bad_partings, 0);
}

void SetUnwindSignalBlocked(bool blocked) {
  const uint64_t signal_33 = uint64_t{1} << 32;
  syscall(SYS_rt_sigprocmask, blocked ? SIG_BLOCK : SIG_UNBLOCK, &signal_33, nullptr,
          sizeof(signal_33));
}

// The unwinder gives up on a thread that blocks the signal; the signal comes late, together with
// the C library's own of the same number.
TEST(BlockedSignal, ComesLateAndHarmsNeitherTheThreadNorASetgid) {
  const ScopedDeadline deadline(60);
  quorvel_init();
  std::atomic<int> step{0}, tid{0}, ids_set{0};
  std::thread target([&] {
    SetUnwindSignalBlocked(true);
    tid = gettid();
    while (step == 0) std::this_thread::yield();
    SetUnwindSignalBlocked(false);
    while (step == 1) std::this_thread::yield();
  });
  while (tid == 0) std::this_thread::yield();
  unwindstack_wrapper unwinder;
  EXPECT_FALSE(unwinder.unwind(tid, nullptr, 64));
  EXPECT_EQ(unwinder.error, "Timed out waiting for signal handler to get ucontext data");

  std::thread setter([&] {
    for (; ids_set < 3; ++ids_set) ASSERT_EQ(setgid(getgid()), 0);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(ids_set, 0) << "the target still blocks the signal";
  step = 1;
  setter.join();
  EXPECT_TRUE(unwinder.unwind(tid, nullptr, 64)) << unwinder.error;
  step = 2;
  target.join();
  EXPECT_EQ(setgid(getgid()), 0);
}

}  // namespace

int UseLibraryInChild() {
  alarm(20);
  if (__quorvel_start_ex("child", 1, nullptr, nullptr, 0) != QUORVEL_INVALID_ID) return 1;
  quorvel_init();
  const uint32_t id = __quorvel_start_ex("child", 60, nullptr, nullptr, 0);
  if (id == QUORVEL_INVALID_ID || quorvel_update(id, 30) != id) return 2;
  quorvel_end(id);
  // The header is left out: the C library's lock on the time zone is for ever taken in a child
  // whose parent had a thread in there at the fork.
  const std::map<int, Section> sections = MakeIncident(getpid(), false);
  if (sections.size() != 2) return 3;  // this thread's and the new monitor's
  for (const auto& [tid, section] : sections) {
    if (section.failed || section.frames == 0) return 4;
  }
  return 0;
}
