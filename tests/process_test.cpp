// The monitor thread itself, the signals of its process, and forks. Each test has a process of its
// own, as the thread never ends.

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>

#include <chrono>
#include <thread>

#include "core/monitor_thread.h"
#include "support/library_test.h"
#include "support/surroundings.h"
#include "unwind/unwindstack_wrapper_thread.h"

namespace {

// The monitor sleeps only as long as the test lets it. Each process begins with the test's own
// constructor, and no thread but the calling one and the first, which waits.
class Process : public LibraryTest {
 protected:
  Process() {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    fakes.sleep = [this](unsigned seconds) {
      pthread_getname_np(pthread_self(), thread_name_, sizeof(thread_name_));
      const int sleep = ++sleeps_;
      while (allowed_sleeps_ < sleep) std::this_thread::yield();
      const bool cut_short = sleep <= cut_short_;
      slept_ += std::to_string(seconds) + (cut_short ? "! " : " ");
      return cut_short ? 1u : 0u;
    };
  }
  ~Process() override { GTEST_FLAG_SET(death_test_style, "fast"); }

  void AwaitSleep(int number) const {
    while (sleeps_ < number) std::this_thread::yield();
  }
  static bool MonitorWaits() {
    const QuorvelMutexLock lock(&g_wake_up.lock);
    return g_wake_up.waiting != 0;
  }
  static void AwaitIdleMonitor() {
    while (!MonitorWaits()) std::this_thread::yield();
  }
  static int32_t Cursor() {
    const QuorvelMutexLock lock(&g_registry.lock);
    return g_registry.cursor;
  }
  // Runs the body in a new process, which ends well unless an expectation fails in it.
  template <typename Body>
  static void ExpectEndsWell(const Body& body) {
    EXPECT_EXIT((alarm(30), body(), _exit(HasFailure() ? 1 : 0)), testing::ExitedWithCode(0), "");
  }

  std::atomic<int> sleeps_{0}, allowed_sleeps_{0};
  int cut_short_ = 0;
  std::string slept_;
  char thread_name_[16] = "";
};

TEST_F(Process, ASleepCutShortIsMadeUpOnceATick) {
  ExpectEndsWell([&] {
    cut_short_ = 2;
    allowed_sleeps_ = 3;
    quorvel_init();
    AwaitSleep(4);
    EXPECT_EQ(slept_, "1! 1! 1 ");
    EXPECT_STREQ(thread_name_, "quorvel");
    EXPECT_EQ(Cursor(), 2);
  });
}

TEST_F(Process, AMonitorIdleAfterThreeTicksIsWokenByABurstOfStartsOnceForFour) {
  ExpectEndsWell([&] {
    allowed_sleeps_ = 3;
    quorvel_init();
    AwaitIdleMonitor();
    for (int i = 0; i < 3; ++i) Start(1);
    AwaitSleep(4);
    EXPECT_FALSE(MonitorWaits());
    EXPECT_EQ(Cursor(), 3) << "it is to sleep before it empties the slot";
    allowed_sleeps_ = 100;
    AwaitIdleMonitor();
    EXPECT_EQ(sleeps_, 7);
    EXPECT_EQ(Armed(), 0u);
  });
}

uint64_t BlockedSignals() {
  uint64_t mask = 0;
  syscall(SYS_rt_sigprocmask, SIG_BLOCK, nullptr, &mask, sizeof(mask));
  return mask;
}

constexpr uint64_t SetOf(int number) {
  return uint64_t{1} << (number - 1);
}

TEST_F(Process, TheMonitorTakesNoSignalButItsOwnFaultsAndTheCLibrarys) {
  ExpectEndsWell([&] {
    std::atomic<uint64_t> at_first{0}, in_callback{0};
    fakes.sleep = [&](unsigned) { return at_first |= BlockedSignals(), 0u; };
    std::atomic<bool> fired{false};
    Function callback = [&] { in_callback = BlockedSignals(), fired = true; };
    uint64_t all = UINT64_MAX;  // but those that cannot be blocked; an emulator knows fewer signals
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &all, nullptr, sizeof(all));
    all = BlockedSignals();
    const uint64_t callers = SetOf(SIGUSR2) | SetOf(33);
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &callers, nullptr, sizeof(callers));
    quorvel_init();
    EXPECT_EQ(BlockedSignals(), callers);
    Start(1, &callback);
    while (!fired) std::this_thread::yield();
    uint64_t not_blocked = SetOf(32) | SetOf(33);
    for (const int fault : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGSYS}) {
      not_blocked |= SetOf(fault);
    }
    EXPECT_EQ(at_first, all & ~not_blocked);
    EXPECT_EQ(in_callback, all & ~not_blocked);
  });
}

#define SKIP_WHERE_A_CHILD_HAS_NO_THREADS()                    \
  SKIP_UNDER_EMULATION("a forked child cannot start threads"); \
  if (kThreadSanitizer) GTEST_SKIP() << "no threads in a child"

// With the C library's sleep, which any signal cuts short, and with that of the host layer.
TEST_F(Process, AStormOfSignalsDoesNotHurryAWatch) {
  SKIP_WHERE_A_CHILD_HAS_NO_THREADS();
  fakes.sleep = nullptr;
  RunInChild([] {
    using Clock = std::chrono::steady_clock;
    std::atomic<int> fired{0};
    Function callback = [&] { ++fired; };
    void* const library = dlopen(QUORVEL_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    const auto start = Clock::now();
    quorvel_init();
    reinterpret_cast<decltype(&quorvel_init)>(dlsym(library, "quorvel_init"))();
    Start(3, &callback);
    reinterpret_cast<decltype(&__quorvel_start_ex)>(dlsym(library, "__quorvel_start_ex"))(
        "n", 3, Call, &callback, 0);
    signal(SIGALRM, [](int) {});
    signal(SIGUSR1, [](int) {});
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    const itimerval often = {{0, 10000}, {0, 10000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    while (fired < 2 && Clock::now() - start < std::chrono::seconds(9)) {
      kill(getpid(), SIGUSR1);
      usleep(1000);
      EXPECT_TRUE(fired == 0 || Clock::now() - start >= std::chrono::seconds(3));
    }
    // On an idle machine it is 4 s at most; ticks of two seconds, made up for, would take 8.
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(7));
  });
}

class ProcessFork : public Process {};

// While another thread holds each of the locks in turn, the first of them in the first init of all.
TEST_F(ProcessFork, NoLockOfTheParentHoldsUpTheChild) {
  ExpectEndsWell([&] {
    std::atomic<int> held{0}, allowed{0};
    const auto hold = [&] {
      const int lock = ++held;
      while (allowed < lock) std::this_thread::yield();
    };
    fakes.pthread_create = [&](void* (*)(void*)) { return hold(), 0; };  // under the init lock
    std::thread other([&] {
      quorvel_init();
      for (QuorvelMutex* lock : {&g_registry.lock, &g_wake_up.lock}) {
        const QuorvelMutexLock guard(lock);
        hold();
      }
      pthread_mutex_lock(&unwindstack_wrapper_thread::list_mutex_);
      hold();
      pthread_mutex_unlock(&unwindstack_wrapper_thread::list_mutex_);
    });
    for (int lock = 1; lock <= 4; ++lock) {
      while (held < lock) std::this_thread::yield();
      SCOPED_TRACE(lock);
      RunInChild([&] {
        InitWithoutMonitor();
        quorvel_end(Start(60));
        EXPECT_NE(unwindstack_wrapper_thread::get(getpid(), gettid(), true), nullptr);
      });
      allowed = lock;
    }
    other.join();
  });
}

TEST_F(ProcessFork, TheChildRefusesUntilAnInitSucceedsInItAndTheParentGoesOn) {
  InitWithoutMonitor();
  const uint32_t parents = Start(60);
  RunInChild([&] {
    fakes.pthread_create = [](void* (*)(void*)) { return EAGAIN; };
    for (int attempt = 0; attempt < 2; ++attempt) {
      EXPECT_EQ(Start(10), QUORVEL_INVALID_ID);
      EXPECT_EQ(quorvel_update(parents, 10), QUORVEL_INVALID_ID);
      quorvel_end(parents);
      if (attempt == 0) quorvel_init();
    }
    EXPECT_THAT(log_.Lines(), testing::ElementsAre(
                                  "E/QUORVEL: pthread_create return fail, QuorvelManagerInit\n"));
    fakes.pthread_create = [](void* (*body)(void*)) { return body == QuorvelThreadHandle ? 0 : 1; };
    quorvel_init();
    EXPECT_NE(Start(10), QUORVEL_INVALID_ID);
    EXPECT_EQ(Armed(), 1u);
  });
  threads_made_ = 0;
  quorvel_init();
  EXPECT_EQ(threads_made_, 0);
  EXPECT_EQ(quorvel_update(parents, 60), parents);
  quorvel_end(parents);
}

uint32_t g_early_watch = QUORVEL_INVALID_ID;

TEST_F(ProcessFork, AnInitInAHandlerOfTheHostsThatCameFirstLasts) {
  ExpectEndsWell([&] {
    pthread_atfork(nullptr, nullptr, [] { quorvel_init(), g_early_watch = Start(60); });
    InitWithoutMonitor();
    Start(60);
    threads_made_ = 0;
    RunInChild([&] {
      EXPECT_EQ(threads_made_, 1);
      EXPECT_EQ(Armed(), 1u);
      EXPECT_EQ(quorvel_update(g_early_watch, 60), g_early_watch);
      const QuorvelMutexLock lock(&g_registry.lock);
      EXPECT_EQ(QuorvelFindNode(g_early_watch)->tid, syscall(SYS_gettid));
    });
  });
}

TEST_F(ProcessFork, AChildMadeWithoutForkHandlersIsResetByItsInit) {
  InitWithoutMonitor();
  const uint32_t id = Start(60);
  const pid_t child = _Fork();
  if (child == 0) {
    threads_made_ = 0;
    quorvel_init();
    _exit(threads_made_ == 1 && Armed() == 0 && quorvel_update(id, 5) != id ? 0 : 1);
  }
  EXPECT_EQ(StatusOf(child), 0);
  quorvel_end(id);
}

class ProcessForkedIncident : public Process {
 protected:
  ProcessForkedIncident() { InitWithoutMonitor(); }
  // Awaits a child that the callback forks and that does this before it returns from it.
  static int StatusOfChildOfCallback(const Function& in_child) {
    constexpr int kDeadline = 10000;  // milliseconds
    pid_t child = 0;
    const auto fork_child = [&] {
      child = fork();
      if (child == 0) in_child();
    };
    std::thread([&] { Respond(QUORVEL_FLAG_LOG, fork_child); }).join();
    pollfd ended = {static_cast<int>(syscall(SYS_pidfd_open, child, 0)), POLLIN, 0};
    if (poll(&ended, 1, kDeadline) == 0) kill(child, SIGKILL);  // a monitor blocks the others
    close(ended.fd);
    return StatusOf(child);
  }
  static void ExpectOneEvent() { EXPECT_THAT(Journal(), testing::MatchesRegex("[^\n]+\n")); }
};

TEST_F(ProcessForkedIncident, TheChildHasARateLimitOfItsOwn) {
  ExpectEndsWell([&] {
    int called = 0;
    const auto respond = [&] { Respond(QUORVEL_FLAG_LOG, [&] { ++called; }); };
    for (int i = 0; i < 8; ++i) respond();
    EXPECT_EQ(called, 6);
    RunInChild([&] {
      respond();
      EXPECT_EQ(called, 7);
    });
    respond();
    EXPECT_EQ(called, 6);
    Respond(QUORVEL_FLAG_LOG | QUORVEL_FLAG_RECOVERY);  // dropped whole: it ends nothing
  });
}

TEST_F(ProcessForkedIncident, AChildForkedMeanwhileHasNoPartInTheParentsFile) {
  const auto fork_meanwhile = [] {
    const int log = QuorvelGetLogFd();
    EXPECT_NE(log, -1);
    RunInChild([log] {
      EXPECT_EQ(QuorvelGetLogFd(), -1);
      EXPECT_EQ(fcntl(log, F_GETFD), -1);
    });
  };
  Respond(QUORVEL_FLAG_LOG, fork_meanwhile);
}

TEST_F(ProcessForkedIncident, TheChildsReportNamesNoFileOfTheParents) {
  Respond(QUORVEL_FLAG_LOG);
  RunInChild([] { Respond(0); });
  EXPECT_THAT(Journal(), testing::EndsWith("\"message\":\"unit_tests\"}\n"));
}

TEST_F(ProcessForkedIncident, AChildThatReturnsFromTheCallbackEndsThere) {
  static const std::string trace = test_root::Path("/exit_handler_ran");
  const auto leave_a_trace = [] { atexit([] { test_root::WriteFile(trace, ""); }); };
  EXPECT_EQ(StatusOfChildOfCallback(leave_a_trace), 0);
  ExpectOneEvent();
  if (Emulated()) return;  // the emulator's thread keeps the one that forked from being the last
  EXPECT_EQ(access(trace.c_str(), F_OK), -1) << "an exit handler of the host ran";
}

// Two pid namespaces, in each of which it is the first process.
TEST_F(ProcessForkedIncident, SuchAChildEndsThereAlsoWithTheIdOfItsParent) {
  constexpr int kNoNamespaces = 77;
  const auto in_namespace = [] {
    EXPECT_EQ(getpid(), 1);
    EXPECT_EQ(unshare(CLONE_NEWPID), 0);
    pid_t child = 0;
    Respond(0, [&] { child = fork(); });
    EXPECT_EQ(getpid() == 1 && child != 0 ? StatusOf(child) : 9, 0);
  };
  const auto in_child = [&] {
    if (unshare(CLONE_NEWUSER | CLONE_NEWPID) != 0) _exit(kNoNamespaces);
    RunInChild(in_namespace);
    ExpectOneEvent();
  };
  const int status = StatusInChild(in_child);
  if (status == kNoNamespaces) GTEST_SKIP() << "no pid namespaces";
  EXPECT_EQ(status, 0);
}

TEST_F(ProcessForkedIncident, OtherThreadsOfSuchAChildLiveOn) {
  SKIP_WHERE_A_CHILD_HAS_NO_THREADS();
  fakes.pthread_create = nullptr;
  const auto start_thread = [] { std::thread([] { usleep(200000), _exit(5); }).detach(); };
  EXPECT_EQ(StatusOfChildOfCallback(start_thread), 5);
  ExpectOneEvent();
}

TEST_F(ProcessForkedIncident, SuchAChildDoesNotLiveOnForItsOwnMonitorAlone) {
  SKIP_WHERE_A_CHILD_HAS_NO_THREADS();
  fakes.pthread_create = nullptr;
  EXPECT_EQ(StatusOfChildOfCallback(quorvel_init), 0);
}

}  // namespace
