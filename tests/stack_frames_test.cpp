// The frames of a stack, against what a debugger and the code itself say, and of stacks and files
// that lie.
#include <fcntl.h>
#include <link.h>
#include <setjmp.h>
#include <sys/mman.h>

#include <algorithm>
#include <sstream>

#include "host_regs.h"
#include "support/frames.h"
#include "support/library_test.h"
#include "support/parked_thread.h"
#include "support/surroundings.h"

namespace {

using namespace frames;
using testing::HasSubstr;

std::atomic<bool> g_arrived;
const std::atomic<bool>* g_stop;
sigjmp_buf g_back;
unwindstack_wrapper* g_unwinder;
ucontext_t g_outside, g_coroutine;

template <typename Pointer>
uint64_t AddressOf(Pointer pointer) {
  return reinterpret_cast<uint64_t>(pointer);
}

// Plain C names, so that they need no demangling.
extern "C" {
__attribute__((noinline)) void unwind_test_leaf(void*) {
  g_arrived = true;
  while (!*g_stop) poll(nullptr, 0, 50);
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
PLAIN_FUNCTION void unwind_test_calls(void (*function)()) {
  function();
  asm volatile("");
}
// Has another return address while its stack is unwound.
PLAIN_FUNCTION void unwind_test_smashed(uint64_t return_address, Frames* out) {
  volatile auto* const record = static_cast<volatile uint64_t*>(__builtin_frame_address(0));
  const uint64_t saved = record[1];
  record[1] = return_address;
  *out = Unwind();
  record[1] = saved;
}
PLAIN_FUNCTION void unwind_test_coroutine() {
  g_unwinder->unwind(gettid(), nullptr, 64);
  swapcontext(&g_coroutine, &g_outside);
}
// Its canonical frame address is an expression that jumps back to its own start.
PLAIN_FUNCTION void unwind_test_endless() {
  asm volatile(".cfi_escape 0x0f, 0x03, 0x2f, 0xfd, 0xff");
}
// Its lies 64 bytes below the stack pointer.
PLAIN_FUNCTION void unwind_test_downward() {
  asm volatile(".cfi_escape 0x13, 0x08");
}
// Its is the smallest number divided by -1.
PLAIN_FUNCTION void unwind_test_dividing() {
  asm volatile(".cfi_escape 0x0f, 0x0c, 0x0f, 0, 0, 0, 0, 0, 0, 0, 0x80, 0x09, 0xff, 0x1b");
}
}

class StackFrames : public testing::Test {
 protected:
  StackFrames() { g_unwinder = &unwinder_; }

  // Runs `fault`, whose signal's handler unwinds the stack and jumps back here.
  static void UnwindInHandler(void (*fault)()) {
    constexpr int kFaults[] = {SIGSEGV, SIGILL, SIGTRAP};
    for (const int number : kFaults) signal(number, [](int) { unwind_test_never_returns(); });
    if (sigsetjmp(g_back, 1) == 0) fault();
    for (const int number : kFaults) signal(number, SIG_DFL);
  }

  unwindstack_wrapper unwinder_;
  const Frames& frames_ = unwinder_.frames;
};

TEST_F(StackFrames, AFunctionAtItsFirstInstructionHasItsOwnName) {
  UnwindInHandler(unwind_test_trap);
  const size_t trap = Find(frames_, "unwind_test_trap");
  EXPECT_THAT(Name(frames_, trap + 1), HasSubstr("UnwindInHandler"));
  EXPECT_EQ(frames_.at(trap).pc, AddressOf(&unwind_test_trap));
  EXPECT_EQ(frames_.at(trap).function_offset, 0u);
}

TEST_F(StackFrames, ACallerAtItsLastInstructionHasItsOwnName) {
  if (sigsetjmp(g_back, 1) == 0) unwind_test_tail();
  const size_t callee = Find(frames_, "unwind_test_never_returns");
  EXPECT_EQ(Name(frames_, callee + 1), "unwind_test_tail");
  EXPECT_THAT(Name(frames_, callee + 2), HasSubstr("ACallerAtItsLast"));
}

TEST_F(StackFrames, ACallThroughNullIsUnknownAtZeroAndItsCallersFollow) {
  UnwindInHandler([] { unwind_test_calls(nullptr); });
  const size_t caller = Find(frames_, "unwind_test_calls");
  EXPECT_THAT(unwinder_.frame_string(caller - 1),
              testing::EndsWith(" pc 0000000000000000  <unknown>"));
  EXPECT_THAT(Name(frames_, caller + 1), HasSubstr("ACallThroughNull"));
}

TEST_F(StackFrames, ASmashedReturnAddressIsTheLastFrame) {
  for (const uint64_t garbage : {uint64_t{0x1230}, uint64_t{0xdead4321dead4321}, UINT64_MAX}) {
    Frames frames;
    unwind_test_smashed(garbage, &frames);
    const size_t at = Find(frames, "unwind_test_smashed");
    ASSERT_EQ(frames.size(), at + 2) << garbage;
    EXPECT_EQ(frames[at + 1].pc, garbage);
    EXPECT_EQ(frames[at + 1].rel_pc, garbage);
    EXPECT_EQ(frames[at + 1].map_start, frames[at + 1].map_end);
    EXPECT_EQ(Name(frames, at + 1), "");
  }
}

TEST_F(StackFrames, AReturnAddressOfZeroEndsTheStackWithoutAFrame) {
  Frames frames;
  unwind_test_smashed(0, &frames);
  EXPECT_EQ(frames.size(), Find(frames, "unwind_test_smashed") + 1);
}

TEST_F(StackFrames, ACoroutineEndsWhereItBegan) {
  static char stack[256 * 1024];
  ASSERT_EQ(getcontext(&g_coroutine), 0);
  g_coroutine.uc_stack.ss_sp = stack;
  g_coroutine.uc_stack.ss_size = sizeof(stack);
  g_coroutine.uc_link = &g_outside;
  makecontext(&g_coroutine, unwind_test_coroutine, 0);
  ASSERT_EQ(swapcontext(&g_outside, &g_coroutine), 0);
  const size_t first = Find(frames_, "unwind_test_coroutine");
  ASSERT_LT(first, frames_.size());
  EXPECT_LE(frames_.size(), first + 2) << Name(frames_, first + 2);
}

// A thread 64 calls deep, in code of a library just loaded that the loader has called with its
// locks held.
class StackFramesInLoader : public StackFrames {
 protected:
  StackFramesInLoader() {
    while (!g_arrived) usleep(1000);
    usleep(20000);  // until it sleeps
  }
  ~StackFramesInLoader() override { g_arrived = false; }

  PluginCall call_ =
      CallOf(Install(UNWIND_PLUGIN_A, test_root::Path("/plugin.so")), "plugin_call_a");
  ParkedThread thread_{[this](const auto& stop) {
    g_stop = &stop;
    unwind_test_recurse(64, &call_);
  }};
};

TEST_F(StackFramesInLoader, AreAsManyAsTheLimitAllowsWithoutTheLoadersLocks) {
  for (const int limit : {2, 63, 64}) {
    ASSERT_TRUE(unwinder_.unwind(thread_.tid(), nullptr, limit)) << unwinder_.error;
    EXPECT_EQ(frames_.size(), static_cast<size_t>(limit));
    EXPECT_EQ(unwinder_.num_frames, frames_.size());
    EXPECT_EQ(frames_.back().num, frames_.size() - 1);
  }
  EXPECT_EQ(Name(frames_, 63), "unwind_test_recurse");
  for (const int limit : {1, 65, -1}) {
    EXPECT_FALSE(unwinder_.unwind(thread_.tid(), nullptr, limit));
    EXPECT_EQ(unwinder_.max_frames, 64) << "a call that is refused changes nothing";
  }
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

TEST_F(StackFramesInLoader, AreThoseThatADebuggerSees) {
  if (Emulated() || system("gdb --version >/dev/null 2>&1") != 0) GTEST_SKIP() << "no debugger";
  ASSERT_TRUE(unwinder_.unwind(thread_.tid(), nullptr, 64));
  const std::string script = test_root::Path("/frames.py"), output = test_root::Path("/frames.txt");
  test_root::WriteFile(script, kDebuggersFrames);
  prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
  const std::string command = "gdb -nx -batch -p " + std::to_string(getpid()) +
                              " -ex 'python tid = " + std::to_string(thread_.tid()) + "' -x " +
                              script + " >" + output + " 2>&1";
  ASSERT_EQ(system(command.c_str()), 0);
  std::istringstream words(test_root::ReadFile(output));
  SCOPED_TRACE(words.str());
  size_t i = 0;
  for (std::string word, name; words >> word && i < frames_.size();) {
    uint64_t pc;  // of the instruction to go on with
    if (word != "FRAME" || !(words >> pc >> name)) continue;
    EXPECT_EQ(frames_[i].pc, i == 0 ? pc : pc - kWithinCall);
    const std::string own = Name(frames_, i);
    const bool in_libc = strstr(frames_[i].map_name.c_str(), "libc") != nullptr;
    EXPECT_TRUE(own == name || own == "" || own.compare(0, 2, "_Z") == 0 || in_libc) << own;
    ++i;
  }
  EXPECT_EQ(i, 64u);
}

// A library whose file has a newline in its name.
class StackFramesOfLibrary : public StackFrames {
 protected:
  // Of the way through the library, a line a frame.
  static std::string Text(PluginCall call) {
    std::string text;
    for (const auto& frame : UnwindThrough(call)) {
      text = text + frame.map_name.c_str() + ": " + frame.function_name.c_str() + "\n";
    }
    return text;
  }

  const std::string file_ = test_root::Path("/plug\nin.so");
  void* const library_ = Install(UNWIND_PLUGIN_A, file_);
};

TEST_F(StackFramesOfLibrary, HaveItsNamesAndItsAddresses) {
  const PluginCall call = CallOf(library_, "plugin_call_a");
  const Frames frames = UnwindThrough(call);
  const size_t at = Find(frames, "plugin_call_a");
  ASSERT_LT(at, frames.size());
  EXPECT_EQ(Name(frames, at - 1), "") << "a name for code that has none";
  EXPECT_STREQ(frames[at].map_name.c_str(), test_root::Path("/plug\\012in.so").c_str());
  EXPECT_EQ(frames[at].pc - frames[at].function_offset, AddressOf(call));
  EXPECT_EQ(frames[at].pc - frames[at].rel_pc, static_cast<link_map*>(library_)->l_addr);
  dlclose(library_);
}

// What the linker adds to every library.
TEST_F(StackFramesOfLibrary, GoOnBelowItsCodeWithoutTables) {
  static Frames unloading;
  const auto at_exit = reinterpret_cast<int (*)(void (*)())>(dlsym(library_, "plugin_at_exit"));
  ASSERT_EQ(at_exit([] { unloading = Unwind(); }), 0);
  dlclose(library_);
  EXPECT_LT(Find(unloading, "dlclose") + 1, unloading.size());
}

// Which is most often in the same place and, when both are deleted, may have the same inode.
TEST_F(StackFramesOfLibrary, HaveTheNamesOfTheOneThatReplacedIt) {
  dlclose(library_);
  for (const bool deleted : {false, true}) {
    for (const char kind : {'a', 'b'}) {
      void* const library = Install(kind == 'a' ? UNWIND_PLUGIN_A : UNWIND_PLUGIN_B, file_);
      if (deleted) unlink(file_.c_str());
      const std::string name = std::string("plugin_call_") + kind;
      EXPECT_THAT(Text(CallOf(library, name.c_str())), HasSubstr(name));
      dlclose(library);
    }
  }
}

TEST_F(StackFramesOfLibrary, HaveItsNamesWhenItsFileIsAnotherOrGone) {
  SKIP_UNDER_EMULATION("it shows other names for deleted files");
  const PluginCall call = CallOf(library_, "plugin_call_a");
  // The name now leads to another file than the one that is mapped, and so does the one that the
  // list shows; then both lead to none. Without privileges only memory is left to read.
  const std::string shown = file_ + " (deleted)";
  test_root::WriteFile(shown, test_root::ReadFile(UNWIND_PLUGIN_B));
  ASSERT_EQ(rename(shown.c_str(), file_.c_str()) + link(file_.c_str(), shown.c_str()), 0);
  constexpr char kLine[] = " (deleted): plugin_call_a\n";
  for (int i = 0; i < 2; ++i) {
    RunInChild([&] {  // first, while nobody has kept its image
      EXPECT_TRUE((getuid() != 0 || setuid(65534) == 0) && RefuseNewCalls());
      EXPECT_THAT(Text(call), HasSubstr(kLine));
    });
    EXPECT_THAT(Text(call), HasSubstr(kLine));
    unlink(file_.c_str());
    unlink(shown.c_str());
  }
  dlclose(library_);
}

// Registers and a stack of the test's making: the last page of the stack ends where nothing is
// mapped.
class StackFramesOfRegisters : public StackFrames {
 protected:
  StackFramesOfRegisters() { mprotect(stack_ + page_, page_, PROT_NONE); }
  ~StackFramesOfRegisters() override { munmap(stack_, 2 * page_); }

  void UnwindFrom(uint64_t pc, uint64_t sp, uint64_t returns_to, uint64_t fp = 0) {
    memcpy(stack_ + page_ - kDepth, &returns_to, sizeof(returns_to));
    const std::unique_ptr<unwindstack::Regs> regs(unwindstack::Regs::CreateFromLocal());
    uint64_t* const values = unwindstack::ValuesOf(regs.get());
    values[unwindstack::kRegSp] = sp;
    values[unwindstack::kRegPc] = pc;
    values[unwindstack::kRegFp] = fp;
#if !defined(__x86_64__)
    values[unwindstack::kRegLr] = returns_to;
#endif
    ASSERT_TRUE(unwinder_._unwind_ucontext_with_reg(regs.get()));
    ASSERT_FALSE(frames_.empty());
    EXPECT_EQ(frames_[0].pc, pc);
  }

  // Maps the second page of a new file as code, and what follows it.
  uint64_t MapSecondPage(const std::string& content) const {
    const std::string file = test_root::Path("/code");
    test_root::WriteFile(file, content);
    const int fd = open(file.c_str(), O_RDONLY);
    void* const code = mmap(nullptr, content.size() - page_, PROT_READ | PROT_EXEC, MAP_PRIVATE, fd,
                            static_cast<off_t>(page_));
    close(fd);
    return AddressOf(code);
  }

  static constexpr size_t kDepth = 64;  // bytes of stack
#if defined(__x86_64__)
  static constexpr size_t kReturnAddressOnStack = 8;
#else
  static constexpr size_t kReturnAddressOnStack = 0;  // it is in a register
#endif
  const size_t page_ = static_cast<size_t>(getpagesize());
  char* const stack_ = static_cast<char*>(
      mmap(nullptr, 2 * page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  const uint64_t end_ = AddressOf(stack_ + page_);
  const uint64_t sp_ = end_ - kDepth;
  const uint64_t in_code_ = AddressOf(&unwind_test_leaf) + 8;
  const uint64_t in_data_ = AddressOf(&g_outside);
};

TEST_F(StackFramesOfRegisters, ShowTheCallerOfAWildCall) {
  for (const uint64_t wild : {uint64_t{0}, in_data_, UINT64_MAX}) {
    UnwindFrom(wild, sp_, in_code_);
    EXPECT_EQ(Name(frames_, 0), "");
    EXPECT_EQ(Name(frames_, 1), "unwind_test_leaf");
    EXPECT_EQ(frames_.at(1).pc, in_code_ - kWithinCall);
    EXPECT_EQ(frames_.at(1).sp, sp_ + kReturnAddressOnStack);
  }
}

TEST_F(StackFramesOfRegisters, ShowTheCallerOfTheVdso) {
  void* const vdso = dlopen("linux-vdso.so.1", RTLD_NOW | RTLD_NOLOAD);
  if (vdso == nullptr) GTEST_SKIP() << "none here";
  UnwindFrom(AddressOf(dlsym(vdso, "__vdso_clock_gettime")), sp_, in_code_);
  EXPECT_EQ(Name(frames_, 0), "__vdso_clock_gettime");
  EXPECT_EQ(Name(frames_, 1), "unwind_test_leaf");
}

TEST_F(StackFramesOfRegisters, ShowNoCallerOfAWildCallThatReturnsToNoCode) {
  for (const uint64_t returns_to : {uint64_t{0}, uint64_t{1}, in_data_}) {
    UnwindFrom(0, sp_, returns_to);
    EXPECT_EQ(frames_.size(), 1u);
  }
  UnwindFrom(0, end_ - 4, 0);
  EXPECT_EQ(frames_.size(), 1u) << "half of a return address";
}

// As an archive holds a library uncompressed, a page into it.
TEST_F(StackFramesOfRegisters, OfAnImageWithinAnotherFileHaveItsOffsetAndNames) {
  void* const library = dlopen(UNWIND_PLUGIN_A, RTLD_NOW);
  const uint64_t vaddr =
      AddressOf(dlsym(library, "plugin_call_a")) - static_cast<link_map*>(library)->l_addr;
  dlclose(library);
  const std::string library_file = test_root::ReadFile(UNWIND_PLUGIN_A);
  UnwindFrom(MapSecondPage(std::string(page_, '\0') + library_file) + vaddr, sp_, 0);
  EXPECT_EQ(frames_[0].map_elf_start_offset, page_);
  EXPECT_EQ(frames_[0].rel_pc, vaddr);
  EXPECT_EQ(Name(frames_, 0), "plugin_call_a");
}

TEST_F(StackFramesOfRegisters, HaveAFunctionsNameUpToItsLastByte) {
  void* const library = dlopen(UNWIND_PLUGIN_A, RTLD_NOW);
  void* const function = dlsym(library, "plugin_call_a");
  Dl_info info;
  void* symbol = nullptr;
  ASSERT_NE(dladdr1(function, &info, &symbol, RTLD_DL_SYMENT), 0);
  const uint64_t end = AddressOf(function) + static_cast<const ElfW(Sym)*>(symbol)->st_size;
  UnwindFrom(end - 1, sp_, 0);
  EXPECT_EQ(Name(frames_, 0), "plugin_call_a");
  UnwindFrom(end, sp_, 0);
  EXPECT_NE(Name(frames_, 0), "plugin_call_a");
  dlclose(library);
}

// Which gives the list of mappings only as text, here one of some 400 KiB.
TEST_F(StackFramesOfRegisters, OnAnOlderKernelKnowWhereNothingIsMapped) {
  SKIP_UNDER_EMULATION("it has no filters");
  constexpr size_t kMappings = 8000;
  char* const many = static_cast<char*>(
      mmap(nullptr, kMappings * page_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  for (size_t i = 0; i < kMappings; i += 2) mprotect(many + i * page_, page_, PROT_READ);
  ParkedThread([this](const auto&) {
    ASSERT_TRUE(RefuseNewCalls());
    UnwindFrom(0x1230, sp_, 0);
    EXPECT_EQ(frames_[0].map_start, frames_[0].map_end);
    UnwindFrom(in_code_, sp_, 0);
    EXPECT_EQ(Name(frames_, 0), "unwind_test_leaf");
  }).Stop();
  munmap(many, kMappings * page_);
}

TEST_F(StackFramesOfRegisters, EndWhereTheStackCannotBeRead) {
  for (const uint64_t sp : {end_, UINT64_MAX - 3, uint64_t{8}}) {
    UnwindFrom(in_code_, sp, 0);
    EXPECT_EQ(Name(frames_, 0), "unwind_test_leaf");
    EXPECT_LE(frames_.size(), 2u);
    EXPECT_EQ(Name(frames_, 1), frames_.size() == 2 ? "" : "(none)");
  }
}

TEST_F(StackFramesOfRegisters, EndInATableThatLeadsNowhere) {
  auto* const words = reinterpret_cast<uint64_t*>(stack_);
  std::fill(words, words + page_ / sizeof(*words), in_code_);
  for (const auto function : {unwind_test_downward, unwind_test_endless, unwind_test_dividing}) {
    UnwindFrom(AddressOf(function), sp_, in_code_);
    EXPECT_THAT(Name(frames_, 0), testing::StartsWith("unwind_test_"));
    EXPECT_EQ(frames_.size(), 1u) << Name(frames_, 0);
  }
}

TEST_F(StackFramesOfRegisters, OfGeneratedCodeFollowAFramePointerOnlyUpTheStack) {
  void* const code =
      mmap(nullptr, page_, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  const uint64_t record[] = {0, in_code_};
  for (const char* const at : {stack_ + page_ - kDepth + 16, stack_ + page_ - kDepth - 16}) {
    memcpy(const_cast<char*>(at), record, sizeof(record));
    UnwindFrom(AddressOf(code), sp_, 0, AddressOf(at));
    EXPECT_TRUE(frames_[0].map_name.empty() && frames_[0].rel_pc == 0 && Name(frames_, 0).empty());
    EXPECT_EQ(Name(frames_, 1), AddressOf(at) > sp_ ? "unwind_test_leaf" : "(none)");
  }
  munmap(code, page_);
}

}  // namespace
