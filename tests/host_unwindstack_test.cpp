// The host layer's unwinder against what a debugger and the code itself say, and against stacks,
// files and tables that lie.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <link.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <setjmp.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>
#include <unwindstack/RegsGetLocal.h>
#include <unwindstack/Unwinder.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "elf_image.h"
#include "process_maps.h"
#include "support/emulated.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define SANITIZED 1
#endif
#endif

namespace {
thread_local long heap_calls;  // of this thread
}

#if defined(SANITIZED)
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*)(const volatile void*, size_t),
                                                         void (*)(const volatile void*));
namespace {
const int kHooked = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void*, size_t) { ++heap_calls; }, [](const volatile void*) { ++heap_calls; });
}
#else
// The whole process's allocator, the unwinding library's too, comes through here.
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void __libc_free(void*);
void* malloc(size_t size) {
  return ++heap_calls, __libc_malloc(size);
}
void* calloc(size_t n, size_t size) {
  return ++heap_calls, __libc_calloc(n, size);
}
void* realloc(void* p, size_t size) {
  return ++heap_calls, __libc_realloc(p, size);
}
void free(void* p) {
  ++heap_calls, __libc_free(p);
}
}
#endif

namespace {

using unwindstack::ElfImage;
using unwindstack::FrameData;
using unwindstack::LocalMaps;
using unwindstack::Mapping;
using unwindstack::Memory;
using unwindstack::Regs;
using unwindstack::Unwinder;
using Frames = std::vector<FrameData>;

constexpr size_t kLimit = 64;

// Consumes `regs`; the result has its capacity already.
void Unwind(Regs* regs, Frames* frames, size_t limit = kLimit) {
  LocalMaps maps;
  std::shared_ptr<Memory> memory = Memory::CreateProcessMemory(getpid());
  if (!maps.Parse()) abort();
  Unwinder unwinder(limit, &maps, regs, memory);
  unwinder.Unwind();
  *frames = unwinder.frames();
  delete regs;
}

__attribute__((always_inline)) inline void UnwindHere(Frames* frames, size_t limit = kLimit) {
  Regs* regs = Regs::CreateFromLocal();
  unwindstack::RegsGetLocal(regs);
  Unwind(regs, frames, limit);
  asm volatile("");  // no tail call: the frame has to be there
}

Frames UnwindContext(ucontext_t* context, size_t limit = kLimit) {
  Frames frames;
  frames.reserve(limit);
  Unwind(Regs::CreateFromUcontext(Regs::CurrentArch(), context), &frames, limit);
  return frames;
}

std::string Name(const Frames& frames, size_t i) {
  return i < frames.size() ? std::string(frames[i].function_name.c_str()) : "(none)";
}

// The index of the frame of that function; the number of frames when there is none.
size_t Find(const Frames& frames, const std::string& name) {
  size_t i = 0;
  while (i < frames.size() && Name(frames, i) != name) ++i;
  return i;
}

#if defined(__x86_64__)
greg_t& Pc(ucontext_t* context) {
  return context->uc_mcontext.gregs[REG_RIP];
}
greg_t& Sp(ucontext_t* context) {
  return context->uc_mcontext.gregs[REG_RSP];
}
using Word = greg_t;
#else
unsigned long long& Pc(ucontext_t* context) {
  return context->uc_mcontext.pc;
}
unsigned long long& Sp(ucontext_t* context) {
  return context->uc_mcontext.sp;
}
using Word = unsigned long long;
#endif

// A thread that a signal has stopped within `body`, which calls WaitToBeParked.
class ParkedThread {
 public:
  explicit ParkedThread(std::function<void()> body) {
    ready_ = released_ = false;
    context_ = nullptr;
    struct sigaction action = {};
    action.sa_sigaction = [](int, siginfo_t*, void* context) {
      context_ = static_cast<ucontext_t*>(context);
      while (!released_) sched_yield();
    };
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigaction(SIGUSR1, &action, nullptr);
    thread_ = std::thread([this, body] {
      tid_ = gettid();
      body();
    });
    while (!ready_) sched_yield();
    pthread_kill(thread_.native_handle(), SIGUSR1);
    while (context_ == nullptr) sched_yield();
  }
  ~ParkedThread() {
    released_ = true;
    thread_.join();
  }

  ucontext_t* context() { return context_; }
  pid_t tid() const { return tid_; }

  static void WaitToBeParked() {
    ready_ = true;
    while (!released_) poll(nullptr, 0, 1);  // where sanitizers too deliver a signal at once
  }

 private:
  static std::atomic<bool> ready_, released_;
  static std::atomic<ucontext_t*> context_;
  std::atomic<pid_t> tid_{0};
  std::thread thread_;
};
std::atomic<bool> ParkedThread::ready_, ParkedThread::released_;
std::atomic<ucontext_t*> ParkedThread::context_;

// A library file of this test's own, loaded for as long as the object lives.
using PluginCall = int (*)(void (*)(void*), void*);
class Plugin {
 public:
  explicit Plugin(const std::string& path, const char* symbol)
      : handle_(dlopen(path.c_str(), RTLD_NOW)) {
    if (handle_ != nullptr) call_ = reinterpret_cast<PluginCall>(dlsym(handle_, symbol));
  }
  ~Plugin() {
    if (handle_ != nullptr) dlclose(handle_);
  }
  Plugin(const Plugin&) = delete;
  Plugin& operator=(const Plugin&) = delete;

  bool loaded() const { return call_ != nullptr; }
  PluginCall call() const { return call_; }
  void* address() const { return reinterpret_cast<void*>(call_); }

  // The frames of a call through the library.
  Frames Trace() const {
    Frames frames;
    if (call_ != nullptr) call_([](void* out) { UnwindHere(static_cast<Frames*>(out)); }, &frames);
    return frames;
  }

 private:
  void* handle_;
  PluginCall call_ = nullptr;
};

class HostUnwindstack : public testing::Test {
 protected:
  void SetUp() override {
    char directory[] = "/tmp/unwindstack_test.XXXXXX";
    ASSERT_NE(mkdtemp(directory), nullptr);
    directory_ = directory;
  }
  void TearDown() override {
    unlink(File().c_str());
    rmdir(directory_.c_str());
  }
  std::string File() const { return directory_ + "/plug\nin.so"; }

  // Puts a copy of `from` in the place of File(), as an installer does: a new file of that name.
  void Install(const char* from) {
    unlink(File().c_str());
    std::ofstream(File(), std::ios::binary) << std::ifstream(from, std::ios::binary).rdbuf();
  }

  // The exit code of `body` run in a forked child.
  static int InChild(const std::function<int()>& body) {
    pid_t child = fork();
    if (child == 0) _exit(body());
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  std::string directory_;
};

extern "C" {
__attribute__((noinline)) void unwind_test_leaf(void*) {
  ParkedThread::WaitToBeParked();
}
__attribute__((noinline)) void unwind_test_outer(PluginCall call) {
  call(unwind_test_leaf, nullptr);
  asm volatile("");
}
}

TEST_F(HostUnwindstack, FramesOfAParkedThreadDifferFromTheDebuggers) {
  if (Emulated() || system("gdb --version >/dev/null 2>&1") != 0) GTEST_SKIP() << "no debugger";
  Plugin plugin(UNWIND_PLUGIN_A, "plugin_call_a");
  ASSERT_TRUE(plugin.loaded());
  ParkedThread thread([&] { unwind_test_outer(plugin.call()); });
  Frames frames = UnwindContext(thread.context());

  std::string script = directory_ + "/frames.py";
  std::ofstream(script) << "import gdb\n"
                        << "for t in gdb.selected_inferior().threads():\n"
                        << "  if t.ptid[1] != " << thread.tid() << ": continue\n"
                        << "  t.switch()\n"
                        << "  f = gdb.newest_frame()\n"
                        << "  while f:\n"
                        << "    name = str(f.name()).replace('(anonymous namespace)::', '')\n"
                        << "    signal = f.type() == gdb.SIGTRAMP_FRAME\n"
                        << "    if f.type() != gdb.INLINE_FRAME:\n"
                        << "      print('FRAME', signal, f.pc(), name)\n"
                        << "    f = f.older()\n";
  prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
  std::string command = "gdb -nx -batch -p " + std::to_string(getpid()) + " -x " + script;
  FILE* debugger = popen((command + " 2>&1").c_str(), "r");
  char line[1024];
  std::string output;
  bool below_signal = false;
  size_t i = 0;
  while (fgets(line, sizeof(line), debugger) != nullptr) {
    output += line;
    std::istringstream words(line);
    std::string tag, signal, name;
    uint64_t pc;
    if (!(words >> tag >> signal >> pc >> name) || tag != "FRAME") continue;
    if (below_signal) {
      ASSERT_LT(i, frames.size()) << output;
      EXPECT_EQ(frames[i].pc, pc) << output;
      bool own_code = strstr(frames[i].map_name.c_str(), "libc") == nullptr;
      bool plain_name = name.find_first_of("(:<") == std::string::npos;
      if (own_code && plain_name && Name(frames, i) != "") {
        EXPECT_EQ(Name(frames, i), name);
      }
      ++i;
    }
    below_signal |= signal == "True";
  }
  pclose(debugger);
  unlink(script.c_str());
  EXPECT_EQ(i, frames.size()) << output;
  EXPECT_LT(Find(frames, "plugin_call_a"), frames.size());
  EXPECT_LT(Find(frames, "unwind_test_outer"), frames.size());
}

extern "C" __attribute__((noinline)) void* unwind_test_captured(Frames* frames) {
  UnwindHere(frames);
  return __builtin_return_address(0);
}

TEST_F(HostUnwindstack, CaptureInPlaceMissesTheCapturingFunction) {
  Frames frames;
  void* returns_to = unwind_test_captured(&frames);
  ASSERT_GT(frames.size(), 2U);
  auto function = reinterpret_cast<uint64_t>(&unwind_test_captured);
  EXPECT_EQ(Name(frames, 0), "unwind_test_captured");
  EXPECT_EQ(frames[0].pc - frames[0].function_offset, function);
  EXPECT_EQ(frames[1].pc, reinterpret_cast<uint64_t>(returns_to));

  Dl_info info;
  ASSERT_NE(dladdr(returns_to, &info), 0);
  EXPECT_EQ(frames[1].rel_pc, frames[1].pc - reinterpret_cast<uint64_t>(info.dli_fbase));
  EXPECT_LT(frames[1].map_start, frames[1].pc);
  EXPECT_GT(frames[1].map_end, frames[1].pc);
  EXPECT_TRUE(frames[1].map_flags & PROT_EXEC);
  EXPECT_EQ(frames[1].map_elf_start_offset, 0U);
  const std::string& map_name = frames[1].map_name;
  EXPECT_EQ(&map_name, &static_cast<const std::string&>(frames[0].map_name)) << "not shared";
  char self[4096] = "";
  EXPECT_GT(readlink("/proc/self/exe", self, sizeof(self) - 1), 0);
  if (!Emulated()) {
    EXPECT_EQ(map_name, self);
  }
}

// The first instruction of unwind_test_trap faults; right before it another function ends.
asm(R"(
  .text
  .globl unwind_test_before_trap, unwind_test_trap
  .type unwind_test_before_trap, %function
  .type unwind_test_trap, %function
unwind_test_before_trap:
  .cfi_startproc
  nop
  .cfi_endproc
  .size unwind_test_before_trap, . - unwind_test_before_trap
unwind_test_trap:
  .cfi_startproc
)"
#if defined(__x86_64__)
    "ud2\n"
#else
    "udf #0\n"
#endif
    R"(
  ret
  .cfi_endproc
  .size unwind_test_trap, . - unwind_test_trap

// Its canonical frame address is an expression that jumps back to its own start.
  .globl unwind_test_endless
  .type unwind_test_endless, %function
unwind_test_endless:
  .cfi_startproc
  .cfi_escape 0x0f, 0x03, 0x2f, 0xfd, 0xff
  ret
  .cfi_endproc
  .size unwind_test_endless, . - unwind_test_endless
)");
extern "C" void unwind_test_trap();
extern "C" void unwind_test_endless();

Frames* g_trap_frames;

TEST_F(HostUnwindstack, FunctionInterruptedAtItsEntryIsNamedAfterTheOneBefore) {
  Frames frames;
  frames.reserve(kLimit);
  g_trap_frames = &frames;
  std::vector<char> other_stack(256 * 1024);
  stack_t stack = {}, old_stack;
  stack.ss_sp = other_stack.data();
  stack.ss_size = other_stack.size();
  ASSERT_EQ(sigaltstack(&stack, &old_stack), 0);
  struct sigaction action = {}, old_action;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  action.sa_sigaction = [](int, siginfo_t*, void* context) {
    UnwindHere(g_trap_frames);
    Pc(static_cast<ucontext_t*>(context)) += sizeof(void*) == 8 && Regs::kCount == 33 ? 4 : 2;
  };
  sigaction(SIGILL, &action, &old_action);
  unwind_test_trap();
  sigaction(SIGILL, &old_action, nullptr);
  sigaltstack(&old_stack, nullptr);

  size_t trap = Find(frames, "unwind_test_trap");
  ASSERT_LT(trap + 1, frames.size());
  EXPECT_EQ(frames[trap].function_offset, 0U);
  EXPECT_NE(Name(frames, trap + 1).find("InterruptedAtItsEntry"), std::string::npos);
}

jmp_buf g_back;
extern "C" {
[[noreturn]] __attribute__((noinline)) void unwind_test_never_returns(Frames* frames) {
  UnwindHere(frames);
  longjmp(g_back, 1);
}
// Its last instruction is the call, so the return address is the next function's.
__attribute__((noinline, no_sanitize("address", "undefined", "thread"))) void unwind_test_tail(
    Frames* frames) {
  unwind_test_never_returns(frames);
}
}

TEST_F(HostUnwindstack, CallAtTheEndOfAFunctionIsNamedAfterTheNextOne) {
  Frames frames;
  if (setjmp(g_back) == 0) unwind_test_tail(&frames);
  EXPECT_EQ(Name(frames, 0), "unwind_test_never_returns");
  EXPECT_EQ(Name(frames, 1), "unwind_test_tail");
  EXPECT_GT(frames.size(), 3U);
}

extern "C" __attribute__((noinline)) int unwind_test_recurse(int depth, Frames* frames,
                                                             size_t limit) {
  if (depth == 0) {
    UnwindHere(frames, limit);
  } else {
    unwind_test_recurse(depth - 1, frames, limit);
  }
  asm volatile("");
  return depth;
}

TEST_F(HostUnwindstack, GeneratedCodeWithAFramePointerEndsTheStack) {
  // A function of PluginCall's type that keeps a frame pointer.
#if defined(__x86_64__)
  const unsigned char code[] = {0x55, 0x48, 0x89, 0xe5, 0x48, 0x89, 0xf8,
                                0x48, 0x89, 0xf7, 0xff, 0xd0, 0x5d, 0xc3};
#else
  const uint32_t code[] = {0xa9bf7bfd, 0x910003fd, 0xaa0003e2, 0xaa0103e0,
                           0xd63f0040, 0xa8c17bfd, 0xd65f03c0};
#endif
  void* page = mmap(nullptr, sizeof(code), PROT_READ | PROT_WRITE | PROT_EXEC,
                    MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(page, MAP_FAILED);
  memcpy(page, code, sizeof(code));
  __builtin___clear_cache(static_cast<char*>(page), static_cast<char*>(page) + sizeof(code));
  Frames frames;
  reinterpret_cast<PluginCall>(page)([](void* out) { UnwindHere(static_cast<Frames*>(out)); },
                                     &frames);
  size_t at = 0;
  const auto start = reinterpret_cast<uint64_t>(page);
  while (at < frames.size() && frames[at].map_start != start) ++at;
  ASSERT_LT(at + 1, frames.size());
  EXPECT_LT(frames[at].rel_pc, sizeof(code));
  EXPECT_TRUE(frames[at].map_name.empty() && frames[at].function_name.empty());
  EXPECT_NE(Name(frames, at + 1).find("FramePointerEndsTheStack"), std::string::npos);
  munmap(page, sizeof(code));
}

TEST_F(HostUnwindstack, DeepStackIsNotCutAtTheLimit) {
  for (size_t limit : {size_t{0}, size_t{1}, size_t{2}, size_t{64}, size_t{200}}) {
    Frames frames;
    unwind_test_recurse(300, &frames, limit);
    EXPECT_EQ(frames.size(), limit);
    for (size_t i = 0; i < frames.size(); ++i) {
      EXPECT_EQ(frames[i].num, i);
      EXPECT_EQ(Name(frames, i), "unwind_test_recurse");
    }
  }
}

TEST_F(HostUnwindstack, ParkedThreadsLocksOrHeapAreUsed) {
  // The target is inside the loader, with its lock; the library was not seen before.
  Install(UNWIND_PLUGIN_A);
  Plugin plugin(File(), "plugin_call_a");
  ASSERT_TRUE(plugin.loaded());
  auto body = [&] {
    PluginCall call = plugin.call();
    dl_iterate_phdr(
        [](dl_phdr_info*, size_t, void* data) {
          unwind_test_outer(*static_cast<PluginCall*>(data));
          return 1;
        },
        &call);
  };
  ParkedThread thread(body);
  for (int i = 0; i < 2; ++i) {
    Frames frames;
    frames.reserve(kLimit);
    long before = heap_calls;
    Unwind(Regs::CreateFromUcontext(Regs::CurrentArch(), thread.context()), &frames);
    EXPECT_EQ(heap_calls, before);
    EXPECT_LT(Find(frames, "plugin_call_a"), Find(frames, "dl_iterate_phdr"));
    EXPECT_LT(Find(frames, "dl_iterate_phdr"), frames.size());
  }
  long before = heap_calls;
  delete new std::string(100, 'x');
  EXPECT_GT(heap_calls, before) << "the count counts nothing";
}

TEST_F(HostUnwindstack, LibraryIsNamedFromAnotherFile) {
  Install(UNWIND_PLUGIN_A);
  void* address;
  {
    Plugin plugin(File(), "plugin_call_a");
    ASSERT_TRUE(plugin.loaded());
    address = plugin.address();
    Frames frames = plugin.Trace();
    size_t at = Find(frames, "plugin_call_a");
    ASSERT_LT(at, frames.size());
    EXPECT_EQ(Name(frames, at - 1), "") << "a name for code that has none";
    EXPECT_STREQ(frames[at].map_name.c_str(), (directory_ + "/plug\\012in.so").c_str());
  }
  Install(UNWIND_PLUGIN_B);
  {
    Plugin plugin(File(), "plugin_call_b");
    ASSERT_TRUE(plugin.loaded());
    if (plugin.address() != address) GTEST_LOG_(INFO) << "loaded at another address";
    EXPECT_LT(Find(plugin.Trace(), "plugin_call_b"), kLimit);

    // The name now leads to another file than the one that is mapped, and so does the one that the
    // list shows; then both lead to none.
    Install(UNWIND_PLUGIN_A);
    const std::string shown = File() + " (deleted)";
    ASSERT_EQ(link(File().c_str(), shown.c_str()), 0);
    for (int i = 0; i < 2; ++i) {
      auto trace = [&] {
        Frames frames = plugin.Trace();
        size_t at = Find(frames, "plugin_call_b");
        bool deleted = at < frames.size() && strstr(frames[at].map_name.c_str(), " (deleted)");
        return deleted ? 0 : 1;
      };
      if (!Emulated()) {
        EXPECT_EQ(trace(), 0);
      }
      // Without privileges only memory is left to read.
      if (!Emulated()) {
        EXPECT_EQ(InChild([&] { return setuid(65534) == 0 ? trace() : 2; }), 0);
      }
      unlink(File().c_str());
      unlink(shown.c_str());
    }
  }
}

TEST_F(HostUnwindstack, UnwindsFailWhileLibrariesComeAndGo) {
  std::atomic<bool> stop{false};
  std::thread loader([&] {
    for (bool odd = false; !stop; odd = !odd) {
      Plugin plugin(odd ? UNWIND_PLUGIN_A : UNWIND_PLUGIN_B,
                    odd ? "plugin_call_a" : "plugin_call_b");
      plugin.Trace();
    }
  });
  for (int i = 0; i < 300; ++i) {
    Frames frames;
    unwind_test_recurse(20, &frames, kLimit);
    ASSERT_GT(frames.size(), 22U);
    ASSERT_EQ(Name(frames, 20), "unwind_test_recurse");
  }
  stop = true;
  loader.join();
}

std::string Names(const Frames& frames) {
  std::string names;
  for (size_t i = 0; i < frames.size(); ++i) {
    names += Name(frames, i) + "@" + std::to_string(frames[i].rel_pc) + frames[i].map_name.c_str();
  }
  return names;
}

// Has the kernel refuse what old or confined ones do: single questions about mappings, and reads
// of one's own memory by that call.
bool RefuseNewCalls() {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_ioctl, 1, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_process_vm_readv, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  sock_fprog filter = {sizeof(program) / sizeof(program[0]), program};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

TEST_F(HostUnwindstack, ChildConfinedOrWithoutPrivilegesSeesOtherFrames) {
  if (Emulated()) GTEST_SKIP() << "an emulator has no such filters";
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the thread sanitizer sometimes holds a signal back for ever";
#endif
  ParkedThread thread([] { unwind_test_leaf(nullptr); });
  std::string expected = Names(UnwindContext(thread.context()));
  auto same = [&] { return Names(UnwindContext(thread.context())) == expected ? 0 : 1; };
  EXPECT_EQ(InChild(same), 0);
  EXPECT_EQ(InChild([&] { return RefuseNewCalls() ? same() : 2; }), 0);
  EXPECT_EQ(
      InChild([&] { return setuid(65534) == 0 && prctl(PR_SET_DUMPABLE, 0) == 0 ? same() : 2; }),
      0);
  EXPECT_EQ(InChild([] {  // no descriptor left for the list of mappings
              while (open("/dev/null", O_RDONLY | O_CLOEXEC) >= 0) {
              }
              return LocalMaps().Parse() ? 1 : 0;
            }),
            0);
}

TEST_F(HostUnwindstack, BrokenContextShowsGarbageOrHidesTheCaller) {
  const size_t page = static_cast<size_t>(getpagesize());
  auto* stack = static_cast<char*>(
      mmap(nullptr, 3 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(stack, MAP_FAILED);
  ASSERT_EQ(mprotect(stack + 2 * page, page, PROT_NONE), 0);
  const auto end = reinterpret_cast<uint64_t>(stack + 2 * page);
  const auto in_code = reinterpret_cast<uint64_t>(&unwind_test_recurse) + 8;
  const auto in_endless = reinterpret_cast<uint64_t>(&unwind_test_endless);
  const auto in_data = reinterpret_cast<uint64_t>(&g_back);
  struct Case {
    const char* what;
    uint64_t pc, sp, returns_to;
    size_t frames;
    const char* second;
  } cases[] = {
      {"call through null", 0, end - 64, in_code, 2, "unwind_test_recurse"},
      {"call into data", in_data, end - 64, in_code, 2, "unwind_test_recurse"},
      {"call to the top", UINT64_MAX, end - 64, in_code, 2, "unwind_test_recurse"},
      {"nothing to return to", 0, end - 64, 0, 1, "(none)"},
      {"data to return to", 1, end - 64, in_data, 1, "(none)"},
      {"stack at its end", 0, end - 4, 0, 1, "(none)"},
      {"no stack", in_code, end, 0, 1, "(none)"},
      {"stack at the top", in_code, UINT64_MAX - 3, 0, 1, "(none)"},
      {"stack not there", in_code, 8, 0, 1, "(none)"},
      {"table without an end", in_endless, end - 64, 0, 1, "(none)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    memset(stack, 0, 2 * page);
    ucontext_t context = {};
    Pc(&context) = static_cast<Word>(c.pc);
    Sp(&context) = static_cast<Word>(c.sp);
#if defined(__x86_64__)
    if (c.returns_to != 0) memcpy(stack + 2 * page - 64, &c.returns_to, sizeof(c.returns_to));
#else
    context.uc_mcontext.regs[30] = c.returns_to;
#endif
    Frames frames = UnwindContext(&context);
    ASSERT_GE(frames.size(), 1U);
    EXPECT_EQ(frames[0].pc, c.pc);
    EXPECT_EQ(Name(frames, 1), c.second);
    if (c.pc != in_code && c.pc != in_endless) {
      EXPECT_EQ(Name(frames, 0), "");
    }
    EXPECT_GE(frames.size(), c.frames);
    EXPECT_LE(frames.size(), c.frames + 1);
  }
  munmap(stack, 3 * page);
}

TEST_F(HostUnwindstack, RandomContextCrashesOrEscapesTheLimit) {
  std::mt19937_64 random(20251122);
  std::vector<uint64_t> stack(8192);
  const auto low = reinterpret_cast<uint64_t>(stack.data());
  void* libc_function = reinterpret_cast<void*>(&qsort);
  auto word = [&]() -> uint64_t {
    switch (random() % 6) {
      case 0:
        return random();
      case 1:
        return low + random() % (stack.size() * 8);
      case 2:
        return reinterpret_cast<uint64_t>(&unwind_test_recurse) + random() % 4096;
      case 3:
        return reinterpret_cast<uint64_t>(libc_function) + random() % 0x40000;
      case 4:
        return (random() % 2 == 0 ? low : low + stack.size() * 8) & ~uint64_t{7};
      default:
        return random() % 64;
    }
  };
  const int rounds = Emulated() ? 100 : 3000;
  for (int i = 0; i < rounds; ++i) {
    for (size_t j = 0; j < 512; ++j) stack[random() % stack.size()] = word();
    ucontext_t context = {};
    uint64_t words[std::min<size_t>(sizeof(context.uc_mcontext) / 8, 36)];
    for (uint64_t& value : words) value = word();
    memcpy(&context.uc_mcontext, words, sizeof(words));
    Pc(&context) = static_cast<Word>(word());
    Sp(&context) = static_cast<Word>(word());
    size_t limit = 2 + random() % 63;
    Frames frames = UnwindContext(&context, limit);
    ASSERT_GE(frames.size(), 1U);
    ASSERT_LE(frames.size(), limit);
    for (size_t j = 1; j < frames.size(); ++j) ASSERT_LT(frames[j].map_start, frames[j].map_end);
  }
}

std::string Content(const char* path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

TEST_F(HostUnwindstack, CorruptFileIsReadBeyondItsEnd) {
  std::string whole = Content(UNWIND_PLUGIN_A);
  ElfImage image;
  unwindstack::BufferSource whole_source(whole);
  ASSERT_TRUE(image.ReadHeaders(&whole_source));
  ASSERT_TRUE(image.ReadSectionSymbols(&whole_source));
  std::mt19937_64 random(4);
  int readable = 0;
  for (int i = 0; i < (Emulated() ? 500 : 5000); ++i) {
    std::string bytes = whole.substr(0, i % 3 == 0 ? random() % whole.size() : whole.size());
    // Most of the damage where the offsets and counts are: the headers at both ends.
    for (size_t j = random() % 8; j > 0 && bytes.size() > 4096; --j) {
      size_t at = random() % 2 == 0 ? random() % 1024 : bytes.size() - 1 - random() % 2048;
      bytes[at] = static_cast<char>(random() % 3 == 0 ? 0xff : random());
    }
    std::vector<char> exact(bytes.begin(), bytes.end());  // so that an overrun is seen
    unwindstack::BufferSource source({exact.data(), exact.size()});
    if (!image.ReadHeaders(&source)) continue;
    ++readable;
    image.ReadSectionSymbols(&source);
    image.ReadDynamicSymbols(&source, random());
    ElfImage::Function function;
    for (uint64_t vaddr = 0; vaddr < 0x4000; vaddr += 61) image.FindFunction(vaddr, &function);
  }
  EXPECT_GT(readable, 50);
}

TEST_F(HostUnwindstack, LyingTablesCrashOrHang) {
  Install(UNWIND_PLUGIN_A);
  Plugin plugin(File(), "plugin_call_a");
  ASSERT_TRUE(plugin.loaded());
  // The library's read-only segments, which hold its tables, made writable.
  std::string content = Content(File().c_str());
  ElfImage image;
  unwindstack::BufferSource source(content);
  ASSERT_TRUE(image.ReadHeaders(&source));
  Dl_info info;
  ASSERT_NE(dladdr(plugin.address(), &info), 0);
  ElfImage::Range segment = image.unwind_segment();
  uint64_t header = image.unwind_header().vaddr;
  ASSERT_GT(segment.size, 0U);
  auto* base = static_cast<unsigned char*>(info.dli_fbase);
  const uint64_t page = static_cast<uint64_t>(getpagesize());
  ASSERT_EQ(mprotect(base + segment.vaddr, (segment.size + page - 1) & ~(page - 1),
                     PROT_READ | PROT_WRITE | (header < 0x1000 ? PROT_EXEC : 0)),
            0);
  std::vector<unsigned char> good(base + header, base + segment.vaddr + segment.size);
  std::mt19937_64 random(5);
  int complete = 0;
  for (int i = 0; i < (Emulated() ? 100 : 2000); ++i) {
    memcpy(base + header, good.data(), good.size());
    for (size_t j = 1 + random() % 4; j > 0; --j) {
      base[header + random() % good.size()] = static_cast<unsigned char>(random());
    }
    // What was read of the file counts until the file is another.
    timespec times[2] = {{0, UTIME_OMIT}, {1000000000 + i, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, File().c_str(), times, 0), 0);
    Frames frames = plugin.Trace();
    ASSERT_GE(frames.size(), 2U);
    ASSERT_LE(frames.size(), kLimit);
    if (Find(frames, "plugin_call_a") < frames.size()) ++complete;
  }
  memcpy(base + header, good.data(), good.size());
  EXPECT_GT(complete, 0);
}

TEST_F(HostUnwindstack, OddLineOfTheListIsTakenForAnother) {
  const char text[] =
      "00400000-00401000 r-xp 00001000 08:1f 4711                       /a b/c\\012d (deleted)\n"
      "00401000-00402000 ---p 00000000 00:00 0 \n"
      "00402000-00403000 rw-s 00000000 00:00 0\n"
      "\n"
      "nonsense\n"
      "00405000-00404000 r--p 00000000 00:00 0 [inverted]\n"
      "00400000-00401000 r--p 00000000 00:00 0 [behind]\n"
      "fffffffffffffffff-1 r--p 00000000 00:00 0 [overflow]\n"
      "7f0000000000-7f0000001000 r-xp 00000000 00:00 0                  [vdso]\n"
      "7f0000002000-7f0000003000 r-xp 00000000 00:00 0                  [anon:name]";
  Mapping maps[16];
  ASSERT_EQ(unwindstack::ParseMapsText(text, maps, 16), 5U);
  EXPECT_EQ(maps[0].name, "/a b/c\\012d (deleted)");
  EXPECT_EQ(maps[0].prot, PROT_READ | PROT_EXEC);
  EXPECT_EQ(maps[0].offset, 0x1000U);
  EXPECT_EQ(maps[0].inode, 4711U);
  EXPECT_EQ(maps[0].dev_minor, 0x1fU);
  EXPECT_EQ(maps[1].name, "");
  EXPECT_EQ(maps[1].prot, 0);
  EXPECT_EQ(maps[2].prot, PROT_READ | PROT_WRITE);
  EXPECT_EQ(maps[3].name, "[vdso]");
  EXPECT_EQ(maps[4].name, "[anon:name]");
  EXPECT_EQ(unwindstack::ParseMapsText(text, maps, 2), 2U);
}

}  // namespace
