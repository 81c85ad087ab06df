// The unwinder: the rendezvous with a thread; its frames against what a debugger and the code
// itself say, and against stacks and files that lie; their text.
#include "unwind/unwindstack_wrapper.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <link.h>
#include <poll.h>
#include <setjmp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <sstream>

#include "support/fakes.h"
#include "support/log_capture.h"
#include "support/parked_thread.h"
#include "support/surroundings.h"
#include "support/test_root.h"
#include "unwind/unwindstack_wrapper_thread.h"

static std::atomic<long> heap_calls;
#if !SANITIZED  // whose allocator cannot be replaced
extern "C" void* __libc_malloc(size_t size);
extern "C" void* malloc(size_t size) {
  ++heap_calls;
  return __libc_malloc(size);
}
#endif

#define PLAIN_FUNCTION __attribute__((noinline, no_sanitize("address", "undefined", "thread")))

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using Entry = unwindstack_wrapper_thread;
using Frames = std::vector<unwindstack::FrameData>;
using PluginCall = int (*)(void (*callback)(void*), void* arg);

Frames Unwind() {
  unwindstack_wrapper unwinder;
  EXPECT_TRUE(unwinder.unwind(gettid(), nullptr, 64)) << unwinder.error;
  return unwinder.frames;
}

// The frames of this thread below a call through that code.
Frames UnwindThrough(PluginCall call) {
  Frames frames;
  call([](void* out) { *static_cast<Frames*>(out) = Unwind(); }, &frames);
  return frames;
}

std::string Name(const Frames& frames, size_t i) {
  return i < frames.size() ? frames[i].function_name.c_str() : "(none)";
}

// The index of the first frame of such a function; the number of frames when there is none.
size_t Find(const Frames& frames, const char* name) {
  size_t i = 0;
  while (i < frames.size() && Name(frames, i).find(name) == std::string::npos) ++i;
  return i;
}

// Loads a copy of `from`, which takes the place of a file as an installer has it.
void* Install(const char* from, const std::string& file) {
  unlink(file.c_str());
  test_root::WriteFile(file, test_root::ReadFile(from));
  return dlopen(file.c_str(), RTLD_NOW);
}

std::atomic<bool> g_arrived;
const std::atomic<bool>* g_stop;
jmp_buf g_back;
unwindstack_wrapper* g_unwinder;

// Plain C names, so that they need no demangling.
extern "C" {
__attribute__((noinline)) void unwind_test_leaf(void*) {
  g_arrived = true;
  while (!*g_stop) poll(nullptr, 0, 500);
}
__attribute__((noinline)) int unwind_test_recurse(int depth, PluginCall* call) {
  if (depth > 0) return unwind_test_recurse(depth - 1, call) + 1;
  const auto in_loader = [](dl_phdr_info*, size_t, void* plugin) {
    return (*static_cast<PluginCall*>(plugin))(unwind_test_leaf, nullptr);
  };
  return dl_iterate_phdr(in_loader, call);
}
[[noreturn]] __attribute__((noinline)) void unwind_test_never_returns() {
  g_unwinder->unwind(gettid(), nullptr, 64);  // has its memory already, as a handler needs it
  siglongjmp(g_back, 1);
}
PLAIN_FUNCTION void unwind_test_tail() {
  unwind_test_never_returns();
}
PLAIN_FUNCTION void unwind_test_trap() {
  __builtin_trap();
}
// Reaches nothing relative to itself, so that a copy works anywhere.
PLAIN_FUNCTION int unwind_test_bare(void (*callback)(void*), void* arg) {
  callback(arg);
  return 1;
}
// Its canonical frame address is an expression that jumps back to its own start.
PLAIN_FUNCTION void unwind_test_endless() {
  asm volatile(".cfi_escape 0x0f, 0x03, 0x2f, 0xfd, 0xff");
}
// Its is the smallest number divided by -1.
PLAIN_FUNCTION void unwind_test_dividing() {
  asm volatile(".cfi_escape 0x0f, 0x0c, 0x0f, 0, 0, 0, 0, 0, 0, 0, 0x80, 0x09, 0xff, 0x1b");
}
}

class UnwindstackWrapper : public testing::Test {
 protected:
  UnwindstackWrapper() { g_arrived = false; }

  LogCapture log_;
  ScopedFakes restore_;
  unwindstack_wrapper unwinder_;
  const Frames& frames_ = unwinder_.frames;
};

TEST_F(UnwindstackWrapper, TheCallingThreadWithoutASignalAndOneThatIsGone) {
  ParkedThread gone([](const auto&) {});
  gone.Stop();
  struct sigaction mine = {}, old, seen;
  mine.sa_handler = [](int) { abort(); };
  ASSERT_EQ(sigaction(33, &mine, &old), 0);
  EXPECT_TRUE(unwinder_.unwind(gettid(), nullptr, 64));
  EXPECT_EQ(Name(frames_, 0), "_ZN19unwindstack_wrapper6unwindEiP10ucontext_ti");
  EXPECT_THAT(Name(frames_, 1), HasSubstr("TheCallingThreadWithout"));
  Entry* const list = Entry::list_;
  EXPECT_FALSE(unwinder_.unwind(gone.tid(), nullptr, 64));
  EXPECT_THAT(log_.Lines(),
              ElementsAre("E/unwindstack_wrapper: _unwind_locked: cannot send signal 33 to " +
                          std::to_string(gone.tid()) + ", No such process"));
  EXPECT_EQ(Entry::list_, list) << "an entry that no handler found goes at once";
  sigaction(33, &old, &seen);
  EXPECT_EQ(seen.sa_handler, mine.sa_handler);
}

// Each is cancelled in a blocking call, most while the unwinder has it parked there.
TEST_F(UnwindstackWrapper, ACancelledThreadEndsAndCanBeUnwoundToItsEnd) {
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

  // One that unwinds itself reads files under locks: no place to end.
  void* const library = Install(UNWIND_PLUGIN_A, test_root::Path("/cancelled.so"));
  const auto call = reinterpret_cast<PluginCall>(dlsym(library, "plugin_call_a"));
  size_t frames = 0;
  ParkedThread self([&](const auto&) {
    pthread_cancel(pthread_self());
    frames = UnwindThrough(call).size();
    pthread_testcancel();
  });
  self.Stop();
  EXPECT_GT(frames, 4u);
}

TEST_F(UnwindstackWrapper, WaitIsForOneValueUntilOneDeadline) {
  int looks = 0;
  fakes.clock_gettime = [&](clockid_t clock, timespec* now) {
    const long result = syscall(SYS_clock_gettime, CLOCK_MONOTONIC, now);
    // One second is left to wait. Each later look at the clock comes late, as on a busy machine.
    now->tv_sec += looks == 0 ? -4 : looks;
    ++looks;
    return clock == CLOCK_MONOTONIC ? static_cast<int>(result) : -1;
  };
  Entry* const entry = Entry::get(100, 1, true);
  pthread_mutex_lock(&entry->entry_mutex_);
  entry->wake();
  EXPECT_FALSE(entry->wait(2));
  EXPECT_EQ(looks, 3) << "it sleeps once its time to look has gone";
  looks = 0;
  ParkedThread waker([&](const auto& stop) {
    for (; !stop; usleep(10000)) entry->wake();
  });
  EXPECT_FALSE(entry->wait(1)) << "the counter has gone past";  // no wake extends the deadline
  waker.Stop();
  const std::string wait = "E/unwindstack_wrapper: pthread_cond_timedwait for value ",
                    failed = " failed: Connection timed out\n";
  EXPECT_THAT(log_.Lines(), ElementsAre(wait + "2" + failed, wait + "1" + failed));
  Entry::remove(entry);
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

TEST_F(UnwindstackWrapper, AProcessThatItsFirstThreadHasLeft) {
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
class UnwindstackWrapperSilence : public UnwindstackWrapper,
                                  public testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(, UnwindstackWrapperSilence, testing::Bool());

TEST_P(UnwindstackWrapperSilence, OfAThreadThatBlocksTheSignalAndMayEndInstead) {
  const bool ends = GetParam();
  std::atomic<bool> blocked{false}, unblock{false};
  ParkedThread thread([&](const auto& stop) {
    BlockUnwindSignal(true);
    blocked = true;
    for (int i = 0; !unblock && !(ends && i == 1000); ++i) usleep(1000);
    BlockUnwindSignal(ends);
    for (blocked = false; !ends && !stop;) usleep(1000);
  });
  while (!blocked) usleep(1000);
  EXPECT_FALSE(unwinder_.unwind(thread.tid(), nullptr, 64));
  EXPECT_EQ(unwinder_.error, ends ? "target thread does not exist"
                                  : "Timed out waiting for signal handler to get ucontext data");
  EXPECT_TRUE(ends || log_.Has("_unwind_locked: " + unwinder_.error + ". "));
  struct sigaction now;
  sigaction(33, nullptr, &now);
  EXPECT_EQ(now.sa_handler, SIG_IGN);
  for (unblock = true; blocked;) usleep(1000);
  EXPECT_EQ(unwinder_.unwind(thread.tid(), nullptr, 64), !ends) << "it answers again";
}

constexpr char kDebuggersFrames[] = R"(
for thread in gdb.selected_inferior().threads():
    if thread.ptid[1] == tid:
        thread.switch()
frame = gdb.newest_frame()
while frame:
    if frame.type() != gdb.INLINE_FRAME:
        print('FRAME', frame.pc(), str(frame.name()).split('::')[-1])
    frame = frame.older()
)";

TEST_F(UnwindstackWrapper, AThreadInTheLoaderWithoutItsLocksOrTheHeapAsTheDebuggerSeesIt) {
  void* const library = Install(UNWIND_PLUGIN_A, test_root::Path("/plugin.so"));  // a new one
  auto call = reinterpret_cast<PluginCall>(dlsym(library, "plugin_call_a"));
  std::atomic<bool> go{false};
  static char signal_stack[64 * 1024];
  ParkedThread thread([&](const auto& stop) {
    const stack_t stack = {signal_stack, 0, sizeof(signal_stack)}, none = {nullptr, SS_DISABLE, 0};
    sigaltstack(&stack, nullptr);
    g_stop = &stop;
    while (!go) usleep(1000);
    unwind_test_recurse(64, &call);
    sigaltstack(&none, nullptr);
  });
  ASSERT_TRUE(unwinder_.unwind(thread.tid(), nullptr, 64));  // makes what stays for the thread
  EXPECT_GT(heap_calls, SANITIZED ? -1 : 0);
  go = true;
  while (!g_arrived) usleep(1000);
  usleep(20000);  // until it sleeps
  for (const int limit : {2, 63, 64, 1, 65, -1}) {
    const bool possible = limit >= 2 && limit <= 64;
    const long before = heap_calls;
    ASSERT_EQ(unwinder_.unwind(thread.tid(), nullptr, limit), possible) << unwinder_.error;
    EXPECT_EQ(heap_calls, before);
    EXPECT_EQ(frames_.size(), static_cast<size_t>(possible ? limit : 64));
    EXPECT_EQ(unwinder_.num_frames, frames_.size());
    EXPECT_EQ(Entry::list_->wait_value_, 3) << "steps from 0 again";
  }
  EXPECT_THAT(signal_stack, testing::Contains(testing::Ne(0))) << "another stack was used";
  EXPECT_LT(Find(frames_, "plugin_call_a"), Find(frames_, "dl_iterate_phdr"));
  EXPECT_EQ(Name(frames_, 63), "unwind_test_recurse");
  EXPECT_EQ(unwinder_.frame_string(64), "");
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
  EXPECT_FALSE(unwinder_._unwind_ucontext_with_reg(nullptr));
  EXPECT_EQ(unwinder_.error, "Fail to get registers");

  if (Emulated() || system("gdb --version >/dev/null 2>&1") != 0) GTEST_SKIP() << "no debugger";
  const std::string script = test_root::Path("/frames.py"), output = test_root::Path("/frames.txt");
  test_root::WriteFile(script, kDebuggersFrames);
  prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
  const std::string command = "gdb -nx -batch -p " + std::to_string(getpid()) +
                              " -ex 'python tid = " + std::to_string(thread.tid()) + "' -x " +
                              script + " >" + output + " 2>&1";
  ASSERT_EQ(system(command.c_str()), 0);
  std::istringstream words(test_root::ReadFile(output));
  SCOPED_TRACE(words.str());
  size_t i = 0;
  for (std::string word, name; words >> word && i < frames_.size();) {
    uint64_t pc;
    if (word != "FRAME" || !(words >> pc >> name)) continue;
    EXPECT_EQ(frames_[i].pc, pc);
    const std::string own = Name(frames_, i);
    const bool in_libc = strstr(frames_[i].map_name.c_str(), "libc") != nullptr;
    EXPECT_TRUE(own == name || own == "" || own.compare(0, 2, "_Z") == 0 || in_libc) << own;
    ++i;
  }
  EXPECT_EQ(i, 64u);
}

TEST_F(UnwindstackWrapper, FunctionAtItsFirstAndAtItsLastInstructionHasItsOwnName) {
  g_unwinder = &unwinder_;
  for (const int signal_number : {SIGILL, SIGTRAP}) {
    signal(signal_number, [](int) { unwind_test_never_returns(); });
  }
  if (sigsetjmp(g_back, 1) == 0) unwind_test_trap();
  for (const int signal_number : {SIGILL, SIGTRAP}) signal(signal_number, SIG_DFL);
  const size_t trap = Find(frames_, "unwind_test_trap");
  EXPECT_THAT(Name(frames_, trap + 1), HasSubstr("AtItsFirstAndAtItsLast"));
  EXPECT_EQ(frames_.at(trap).function_offset, 0u);

  if (sigsetjmp(g_back, 1) == 0) unwind_test_tail();
  const size_t callee = Find(frames_, "unwind_test_never_returns");
  EXPECT_EQ(Name(frames_, callee + 1), "unwind_test_tail");
  EXPECT_THAT(Name(frames_, callee + 2), HasSubstr("AtItsFirstAndAtItsLast"));
}

TEST_F(UnwindstackWrapper, GeneratedCodeIsPassedByItsFramePointer) {
  constexpr size_t kSize = 64;  // more than it takes
  void* page =
      mmap(nullptr, kSize, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  memcpy(page, reinterpret_cast<const void*>(&unwind_test_bare), kSize);
  __builtin___clear_cache(static_cast<char*>(page), static_cast<char*>(page) + kSize);
  const Frames frames = UnwindThrough(reinterpret_cast<PluginCall>(page));
  size_t at = 0;
  while (at < frames.size() && frames[at].map_start != reinterpret_cast<uint64_t>(page)) ++at;
  ASSERT_LT(at, frames.size());
  EXPECT_LT(frames[at].rel_pc, kSize);
  EXPECT_TRUE(frames[at].map_name.empty() && frames[at].function_name.empty());
  EXPECT_THAT(Name(frames, at + 1), HasSubstr("UnwindThrough"));
  munmap(page, kSize);
}

TEST_F(UnwindstackWrapper, LibraryIsNamedFromItsOwnFileOrFromMemory) {
  const std::string file = test_root::Path("/plug\nin.so"), shown = file + " (deleted)";
  void* library = Install(UNWIND_PLUGIN_A, file);
  void* call = dlsym(library, "plugin_call_a");
  const Frames frames = UnwindThrough(reinterpret_cast<PluginCall>(call));
  const size_t at = Find(frames, "plugin_call_a");
  ASSERT_LT(at, frames.size());
  EXPECT_EQ(Name(frames, at - 1), "") << "a name for code that has none";
  EXPECT_STREQ(frames[at].map_name.c_str(), test_root::Path("/plug\\012in.so").c_str());
  EXPECT_EQ(frames[at].pc - frames[at].function_offset, reinterpret_cast<uint64_t>(call));
  EXPECT_EQ(frames[at].pc - frames[at].rel_pc, static_cast<link_map*>(library)->l_addr);

  // What the linker adds to every library has no tables: the way up leads through it all the same.
  static Frames unloading;
  const auto at_exit = reinterpret_cast<int (*)(void (*)())>(dlsym(library, "plugin_at_exit"));
  ASSERT_EQ(at_exit([] { unloading = Unwind(); }), 0);
  dlclose(library);
  EXPECT_LT(Find(unloading, "dlclose") + 1, unloading.size());
  call = dlsym(Install(UNWIND_PLUGIN_B, file), "plugin_call_b");  // most often in the same place
  const auto all = [call] {
    std::string text;
    for (const auto& frame : UnwindThrough(reinterpret_cast<PluginCall>(call))) {
      text = text + frame.map_name.c_str() + ": " + frame.function_name.c_str() + "\n";
    }
    return text;
  };
  EXPECT_THAT(all(), HasSubstr("plugin_call_b"));
  if (Emulated()) return;
  // The name now leads to another file than the one that is mapped, and so does the one that the
  // list shows; then both lead to none. Without privileges only memory is left to read.
  test_root::WriteFile(shown, test_root::ReadFile(UNWIND_PLUGIN_A));
  ASSERT_EQ(rename(shown.c_str(), file.c_str()) + link(file.c_str(), shown.c_str()), 0);
  constexpr char kDeleted[] = " (deleted): plugin_call_b\n";
  for (int i = 0; i < 2; ++i) {
    EXPECT_THAT(all(), HasSubstr(kDeleted));
    const pid_t child = fork();
    if (child == 0) {
      const bool confined = (getuid() != 0 || setuid(65534) == 0) && RefuseNewCalls();
      _exit(confined && all().find(kDeleted) != std::string::npos ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    unlink(file.c_str());
    unlink(shown.c_str());
  }
}

TEST_F(UnwindstackWrapper, BrokenContextShowsNoGarbageAndTheCallerWhereItCan) {
  const size_t page = static_cast<size_t>(getpagesize());
  auto* stack = static_cast<char*>(
      mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_EQ(mprotect(stack + page, page, PROT_NONE), 0);
  const auto end = reinterpret_cast<uint64_t>(stack + page);
  const auto in_code = reinterpret_cast<uint64_t>(&unwind_test_leaf) + 8;
  const auto in_endless = reinterpret_cast<uint64_t>(&unwind_test_endless);
  const auto in_dividing = reinterpret_cast<uint64_t>(&unwind_test_dividing);
  const auto in_data = reinterpret_cast<uint64_t>(&g_back);
  void* const vdso = dlopen("linux-vdso.so.1", RTLD_NOW | RTLD_NOLOAD);
  const auto in_vdso = reinterpret_cast<uint64_t>(dlsym(vdso, "__vdso_clock_gettime"));
  using unwindstack::Regs;
  constexpr char kLeaf[] = "unwind_test_leaf";
  const struct {
    const char* what;
    uint64_t pc, sp, returns_to;
    const char *first, *second;
  } rows[] = {
      {"call through null", 0, end - 64, in_code, "", kLeaf},
      {"call into data", in_data, end - 64, in_code, "", kLeaf},
      {"call to the top", UINT64_MAX, end - 64, in_code, "", kLeaf},
      {"call of the vdso", in_vdso, end - 64, in_code, vdso ? "__vdso_clock_gettime" : "", kLeaf},
      {"nothing to return to", 0, end - 64, 0, "", "(none)"},
      {"data to return to", 1, end - 64, in_data, "", "(none)"},
      {"stack at its end", 0, end - 4, 0, "", "(none)"},
      {"no stack", in_code, end, 0, kLeaf, "(none)"},
      {"stack at the top", in_code, UINT64_MAX - 3, 0, kLeaf, "(none)"},
      {"stack not there", in_code, 8, 0, kLeaf, "(none)"},
      {"table without an end", in_endless, end - 64, 0, "unwind_test_endless", "(none)"},
      {"table that divides", in_dividing, end - 64, 0, "unwind_test_dividing", "(none)"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    memcpy(stack + page - 64, &row.returns_to, sizeof(row.returns_to));
    const std::unique_ptr<Regs> regs(Regs::CreateFromLocal());
    auto* const values = static_cast<uint64_t*>(regs->RawData());
    values[Regs::kSp] = row.sp;
    values[Regs::kPc] = row.pc;
#if !defined(__x86_64__)
    values[Regs::kLr] = row.returns_to;
#endif
    ASSERT_TRUE(unwinder_._unwind_ucontext_with_reg(regs.get()));
    EXPECT_EQ(frames_.at(0).pc, row.pc);
    EXPECT_EQ(Name(frames_, 0), row.first);
    EXPECT_EQ(Name(frames_, 1), row.second);
    EXPECT_LE(frames_.size(), 3u);
  }
  munmap(stack, 2 * page);
}

TEST_F(UnwindstackWrapper, FramesAsText) {
  auto& frame = unwinder_.frames.emplace_back();
  unwinder_.num_frames = 1;
  frame.num = 7;
  frame.rel_pc = 0xabc;
  frame.function_name = "_Z1fv";
  EXPECT_EQ(unwinder_.frame_string(0), "  #07 pc 0000000000000abc  <unknown> (_Z1fv)");
  frame.map_end = 0x10;
  frame.function_offset = 12;
  EXPECT_EQ(unwinder_.frame_string(0), "  #07 pc 0000000000000abc  <anonymous:0> (_Z1fv+12)");
  frame.num = 100;
  frame.map_elf_start_offset = 0x1000;
  frame.map_name = "/lib/x";
  frame.function_name = "";
  unwinder_.is_32bit = true;
  EXPECT_EQ(unwinder_.frame_string(0), "  #100 pc 00000abc (offset 0x1000)  /lib/x");
}

}  // namespace
