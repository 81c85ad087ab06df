// The rendezvous with a thread: what it leaves of the thread, of signal 33 and of the heap's lock.
#include "unwind/unwindstack_wrapper.h"

#include <setjmp.h>
#include <sys/resource.h>

#include "support/frames.h"
#include "support/library_test.h"
#include "support/parked_thread.h"
#include "support/surroundings.h"
#include "unwind/unwindstack_wrapper_thread.h"

using Entry = unwindstack_wrapper_thread;

// Calls of the heap while the thread of this entry is stopped.
static std::atomic<Entry*> heap_entry;
static std::atomic<long> heap_calls_while_stopped;
#if !SANITIZED  // whose allocator cannot be replaced
extern "C" void* __libc_malloc(size_t size);
extern "C" void* malloc(size_t size) {
  const Entry* const entry = heap_entry;
  if (entry != nullptr && entry->wait_value_ == kRendezvousContextSaved) ++heap_calls_while_stopped;
  return __libc_malloc(size);
}
#endif

namespace {

using namespace frames;
using testing::HasSubstr;

constexpr char kNoAnswer[] = "Timed out waiting for signal handler to get ucontext data";

// The kernel's action for signal 33, which the C library's own call refuses to show.
struct KernelAction {
  void (*handler)(int);
  unsigned long flags;
  void (*restorer)();
  uint64_t mask;
};

KernelAction ActionOfSignal33(const KernelAction* action = nullptr) {
  KernelAction old = {};
  EXPECT_EQ(syscall(SYS_rt_sigaction, 33, action, &old, sizeof(old.mask)), 0);
  return old;
}

bool operator==(const KernelAction& a, const KernelAction& b) {
  return a.handler == b.handler && a.flags == b.flags && a.mask == b.mask;
}

class UnwindstackWrapper : public LibraryTest {
 protected:
  ~UnwindstackWrapper() override { heap_entry = nullptr; }

  // An action that the host puts there by the kernel's own call. Returns what was there.
  KernelAction InstallHostsAction() {
    hosts_ = ActionOfSignal33();  // with its way back to the kernel
    hosts_.handler = [](int) { ++hosts_calls_; };
    hosts_.flags &= ~static_cast<unsigned long>(SA_SIGINFO);
    hosts_.mask = 1 << 11;
    return ActionOfSignal33(&hosts_);
  }

  static inline std::atomic<int> hosts_calls_;
  KernelAction hosts_ = {};
  unwindstack_wrapper unwinder_;
  const Frames& frames_ = unwinder_.frames;
};

TEST_F(UnwindstackWrapper, TheCallingThreadNeedsNoSignal) {
  const KernelAction before = InstallHostsAction();
  Entry* const list = Entry::list_;
  EXPECT_TRUE(unwinder_.unwind(gettid(), nullptr, 64));
  EXPECT_EQ(Name(frames_, 0), "_ZN19unwindstack_wrapper6unwindEiP10ucontext_ti");
  EXPECT_THAT(Name(frames_, 1), HasSubstr("TheCallingThreadNeedsNoSignal"));
  EXPECT_LT(frames_.size(), 64u);
  EXPECT_EQ(unwinder_.num_frames, frames_.size());
  EXPECT_EQ(Entry::list_, list);
  EXPECT_TRUE(unwinder_._unwind_ucontext_current());
  EXPECT_THAT(Name(frames_, 0), HasSubstr("_unwind_ucontext_current"));
  ActionOfSignal33(&before);
}

TEST_F(UnwindstackWrapper, AThreadThatIsGoneIsAFailureAtOnceAndLeavesNoEntryAndTheHostsAction) {
  const KernelAction before = InstallHostsAction();
  ParkedThread gone([](const auto&) {});
  gone.Stop();
  Entry* const list = Entry::list_;
  EXPECT_FALSE(unwinder_.unwind(gone.tid(), nullptr, 64));
  EXPECT_THAT(log_.Lines(), testing::ElementsAre(
                                "E/unwindstack_wrapper: _unwind_locked: cannot send signal 33 to " +
                                std::to_string(gone.tid()) + ", No such process"));
  EXPECT_EQ(unwinder_.error, "");
  EXPECT_EQ(Entry::list_, list);
  EXPECT_EQ(ActionOfSignal33(&before), hosts_);
}

TEST_F(UnwindstackWrapper, TheActionOfTheSignalIsRestoredAfterAnAnswer) {
  ParkedThread thread(Sleep);
  const KernelAction before = InstallHostsAction();
  ASSERT_TRUE(unwinder_.unwind(thread.tid(), nullptr, 64));
  EXPECT_EQ(ActionOfSignal33(&before), hosts_);
  ASSERT_TRUE(unwinder_.unwind(thread.tid(), nullptr, 64));
  EXPECT_EQ(ActionOfSignal33(), before);
  EXPECT_TRUE(kThreadSanitizer || setgid(getgid()) == 0) << "signals every thread";
}

TEST_F(UnwindstackWrapper, TheHandlerRunsOnTheThreadsSignalStack) {
  static char signal_stack[64 * 1024];
  ParkedThread thread([](const auto& stop) {
    const stack_t stack = {signal_stack, 0, sizeof(signal_stack)}, none = {nullptr, SS_DISABLE, 0};
    sigaltstack(&stack, nullptr);
    Sleep(stop);
    sigaltstack(&none, nullptr);
  });
  while (g_asleep == 0) sched_yield();
  ASSERT_TRUE(unwinder_.unwind(thread.tid(), nullptr, 64));
  EXPECT_THAT(signal_stack, testing::Contains(testing::Ne(0)));
}

TEST_F(UnwindstackWrapper, TheErrnoOfAStoppedThreadIsKept) {
  fakes.clock_gettime = [](clockid_t clock, timespec* now) {
    const long result = syscall(SYS_clock_gettime, clock, now);
    errno = EXDEV;
    return static_cast<int>(result);
  };
  std::atomic<int> changed{0};
  ParkedThread thread([&](const auto& stop) {
    for (errno = 0; !stop;) changed += errno != 0;
  });
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(unwinder_.unwind(thread.tid(), nullptr, 64));
  thread.Stop();
  EXPECT_EQ(changed, 0);
}

TEST_F(UnwindstackWrapper, AThreadHasOneEntryHoweverOftenItIsUnwound) {
  ParkedThread thread(Sleep);
  ASSERT_TRUE(unwinder_.unwind(thread.tid(), nullptr, 64));
  Entry* const entry = Entry::list_;
  ASSERT_TRUE(unwinder_.unwind(thread.tid(), nullptr, 64));
  EXPECT_EQ(Entry::list_, entry);
  EXPECT_EQ(entry->ref_count_, 2) << "one for each handler";
}

// A stopped thread may hold the lock of the heap.
class UnwindstackWrapperHeap : public UnwindstackWrapper {
 protected:
  UnwindstackWrapperHeap() {
    EXPECT_TRUE(unwinder_.unwind(thread_.tid(), nullptr, 64));  // makes what stays for the thread
    heap_calls_while_stopped = 0;
    heap_entry = Entry::list_;
  }

  ParkedThread thread_{Sleep};
};

TEST_F(UnwindstackWrapperHeap, IsNotUsedWhileTheThreadIsStoppedEvenByAnEmptiedObject) {
  std::string().swap(unwinder_.error);
  Frames().swap(unwinder_.frames);
  ASSERT_TRUE(unwinder_.unwind(thread_.tid(), nullptr, 64));
  EXPECT_EQ(heap_calls_while_stopped, 0);
}

TEST_F(UnwindstackWrapperHeap, IsNotUsedForTheReasonOfAFailure) {
  rlimit files;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &files), 0);
  const rlimit none = {0, files.rlim_max};
  unwindstack_wrapper fresh;
  setrlimit(RLIMIT_NOFILE, &none);
  const bool unwound = fresh.unwind(thread_.tid(), nullptr, 64);
  setrlimit(RLIMIT_NOFILE, &files);
  EXPECT_FALSE(unwound);
  EXPECT_EQ(fresh.error, "Fail to parse maps");
  EXPECT_EQ(heap_calls_while_stopped, 0);
}

// Each is cancelled in a blocking call, most while the unwinder has it stopped there.
TEST_F(UnwindstackWrapper, ACancelledThreadEndsWithTheSignalUnblocked) {
  if (SANITIZED) GTEST_SKIP() << "their own frames cannot be unwound by a cancellation";
  static std::atomic<int> still_blocked;
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  for (useconds_t i = 0; i < 300; ++i) {
    std::atomic<bool> cancelled{false};
    ParkedThread victim([&](const auto&) {
      const auto note = [](void*) {
        sigset_t mask;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        still_blocked += reinterpret_cast<const uint64_t*>(&mask)[0] >> 32 & 1;
      };
      pthread_cleanup_push(note, nullptr);
      for (char c;;) EXPECT_EQ(read(ends[0], &c, 1), 0);
      pthread_cleanup_pop(0);
    });
    ParkedThread unwinding([&](const auto&) {
      while (!cancelled) unwindstack_wrapper().unwind(victim.tid(), nullptr, 64);
    });
    usleep(100 + i % 100);
    cancelled = true;
    pthread_cancel(victim.handle());
  }
  EXPECT_EQ(still_blocked, 0);
  close(ends[0]);
  close(ends[1]);
}

// It reads files under locks: no place to end.
TEST_F(UnwindstackWrapper, ACancelledThreadUnwindsItselfToTheEnd) {
  if (SANITIZED) GTEST_SKIP() << "their own frames cannot be unwound by a cancellation";
  void* const library = Install(UNWIND_PLUGIN_A, test_root::Path("/cancelled.so"));
  const PluginCall call = CallOf(library, "plugin_call_a");
  size_t frames = 0;
  ParkedThread self([&](const auto&) {
    pthread_cancel(pthread_self());
    frames = UnwindThrough(call).size();
    pthread_testcancel();
  });
  self.Stop();
  EXPECT_GT(frames, 4u);
}

TEST_F(UnwindstackWrapper, AHandlerThatJumpsDoesNotJumpOutOfTheUnwindersOwn) {
  if (kThreadSanitizer) GTEST_SKIP() << "it calls handlers later, whatever the mask says";
  static sigjmp_buf loop;
  signal(SIGUSR2, [](int) { siglongjmp(loop, 1); });
  std::atomic<bool> ready{false};
  std::atomic<int> cancel_state{-1};
  ParkedThread thread([&](const auto& stop) {
    for (ready = sigsetjmp(loop, 1) != 2; !stop;) sched_yield();
    int state;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state);
    cancel_state = state;
  });
  while (!ready) sched_yield();
  ParkedThread sender([&](const auto& stop) {
    for (; !stop; usleep(50)) tgkill(getpid(), thread.tid(), SIGUSR2);
  });
  for (int i = 0; i < 300; ++i) EXPECT_TRUE(unwinder_.unwind(thread.tid(), nullptr, 64));
  sender.Stop();
  thread.Stop();
  EXPECT_EQ(cancel_state, PTHREAD_CANCEL_ENABLE);
}

TEST_F(UnwindstackWrapper, AProcessThatItsFirstThreadHasLeftIsUnwound) {
  if (SANITIZED || Emulated()) GTEST_SKIP() << "no threads in the child of a fork";
  const auto run = [] {
    std::thread([] {
      usleep(100000);
      unwindstack_wrapper unwinder;
      unwinder.unwind(gettid(), nullptr, 64);
      _exit(unwinder.num_frames > 2 ? 0 : 1);
    }).detach();
    syscall(SYS_exit, 0);  // of this thread alone
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

// The unwinder gives up after five seconds; the signal is still on its way and finds nobody.
class UnwindstackWrapperSilence : public UnwindstackWrapper {
 protected:
  void SetUp() override {
    while (!blocked_) usleep(1000);
  }
  void UnblockAndUnwindAgain() {
    for (unblock_ = true; blocked_;) usleep(1000);
    EXPECT_TRUE(unwinder_.unwind(thread_.tid(), nullptr, 64)) << unwinder_.error;
  }

  std::atomic<bool> blocked_{false}, unblock_{false}, ended_{false};
  // Blocks the signal until it is told to stop blocking; then stays, or ends without unblocking.
  ParkedThread thread_{[this](const auto& stop) {
    BlockUnwindSignal(true);
    blocked_ = true;
    while (!unblock_ && !ended_) usleep(1000);
    if (ended_) return;
    BlockUnwindSignal(false);
    blocked_ = false;
    Sleep(stop);
  }};
};

TEST_F(UnwindstackWrapperSilence, OfAThreadThatBlocksTheSignalLeavesItIgnored) {
  const time_t begin = time(nullptr);
  EXPECT_FALSE(unwinder_.unwind(thread_.tid(), nullptr, 64));
  EXPECT_THAT(time(nullptr) - begin, testing::AllOf(testing::Ge(4), testing::Le(9)));
  EXPECT_EQ(unwinder_.error, kNoAnswer);
  EXPECT_TRUE(log_.Has(std::string("_unwind_locked: ") + kNoAnswer + ". "));
  struct sigaction now;
  sigaction(33, nullptr, &now);
  EXPECT_EQ(now.sa_handler, SIG_IGN);
  UnblockAndUnwindAgain();
}

TEST_F(UnwindstackWrapperSilence, BlocksItsLateSignalFromTheHandlerOfAnotherExchange) {
  EXPECT_FALSE(unwinder_.unwind(thread_.tid(), nullptr, 64));
  std::atomic<bool> other_blocked{false};
  ParkedThread other([&](const auto& stop) {
    BlockUnwindSignal(true);
    other_blocked = true;
    usleep(200000);  // until the unwinder waits for this thread
    for (unblock_ = true; blocked_;) usleep(1000);
    BlockUnwindSignal(false);
    Sleep(stop);
  });
  while (!other_blocked) usleep(1000);
  log_.Clear();
  EXPECT_TRUE(unwinder_.unwind(other.tid(), nullptr, 64));
  EXPECT_THAT(log_.Lines(), testing::IsEmpty()) << "the first thread ran the handler";
}

TEST_F(UnwindstackWrapperSilence, OfAThreadThatEndsSaysSo) {
  ParkedThread ending([this](const auto&) {
    sleep(1);
    ended_ = true;
  });
  EXPECT_FALSE(unwinder_.unwind(thread_.tid(), nullptr, 64));
  EXPECT_EQ(unwinder_.error, "target thread does not exist");
}

TEST_F(UnwindstackWrapperSilence, RestoresTheHostsActionAndSendsItNothingLate) {
  const KernelAction before = InstallHostsAction();
  hosts_calls_ = 0;
  EXPECT_FALSE(unwinder_.unwind(thread_.tid(), nullptr, 64));
  EXPECT_EQ(ActionOfSignal33(), hosts_);
  ActionOfSignal33(&before);
  UnblockAndUnwindAgain();
}

TEST_F(UnwindstackWrapperSilence, ForksNoHandlerIntoAChild) {
  const KernelAction before = InstallHostsAction();
  ParkedThread forking([&](const auto&) {
    while (ActionOfSignal33() == hosts_) usleep(1000);
    RunInChild([this] {
      unwindstack_wrapper_reset_in_child();
      EXPECT_EQ(ActionOfSignal33(), hosts_);
    });
  });
  EXPECT_FALSE(unwinder_.unwind(thread_.tid(), nullptr, 64));
  forking.Stop();
  ActionOfSignal33(&before);
  ended_ = true;
}

}  // namespace
