#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <link.h>
#include <linux/futex.h>
#include <locale.h>
#include <setjmp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "stress/storm.h"

#define NOINLINE __attribute__((noinline))

std::atomic<int> g_broken_promises{0};

namespace {

// Microseconds. Much longer than a thread's end takes: one that is caught in that is silent.
constexpr long kShortLife = kSanitizer ? 300000 : 20000;

std::atomic<bool> g_running{false};
std::atomic<int> g_at_work{0};

void Pause(long microseconds) {
  const struct timespec time = {0, microseconds * 1000};
  nanosleep(&time, nullptr);
}

void Compute(int turns) {
  for (int i = 0; i < turns; ++i) asm volatile("" ::: "memory");
}

void Must(bool kept, const char* promise) {
  if (kept) return;
  const int error = errno;
  if (g_broken_promises++ < 20) {
    dprintf(STDERR_FILENO, "thread %d: not kept: %s (errno %d)\n", gettid(), promise, error);
  }
  errno = error;
}

pthread_t Start(void* (*body)(void*), void* argument = nullptr, size_t stack_size = 0) {
  pthread_t thread;
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  if (stack_size != 0) pthread_attr_setstacksize(&attributes, stack_size);
  Must(pthread_create(&thread, &attributes, body, argument) == 0, "a thread starts");
  pthread_attr_destroy(&attributes);
  return thread;
}

void Join(pthread_t thread, void* expected) {
  void* result = nullptr;
  Must(pthread_join(thread, &result) == 0 && result == expected, "a thread ends as it should");
}

void Allocates(Hostile& self) {
  void* kept[16] = {};
  while (self.Next()) {
    for (size_t i = 0; i < 8192; ++i) {
      free(kept[i % 16]);
      kept[i % 16] = malloc(i * 7919 % (i % 512 == 0 ? 400000 : 3000));
    }
  }
  for (void* memory : kept) free(memory);
}

void LoadsLibraries(Hostile& self) {
  while (self.Next()) {
    void* library = dlopen(STRESS_PLUGIN, RTLD_NOW);
    Must(library != nullptr, "dlopen");
    if (library == nullptr) continue;
    const auto call = reinterpret_cast<int (*)(int (*)())>(dlsym(library, "plugin_call"));
    Must(call != nullptr && call([] { return Compute(20000), 41; }) == 42, "a call into a library");
    dlclose(library);
  }
}

NOINLINE void ThrowBelow(int depth) {
  const std::string unwound(50, 'x');
  if (depth == 0) throw std::runtime_error(unwound);
  ThrowBelow(depth - 1);
  Compute(1);
}

void Throws(Hostile& self) {
  while (self.Next()) {
    try {
      ThrowBelow(8);
      Must(false, "a throw is caught");
    } catch (const std::runtime_error& error) {
      Must(strlen(error.what()) == 50, "what was thrown is caught");
    }
  }
}

void StartsThreads(Hostile& self) {
  const size_t smallest = kSanitizer ? 0 : static_cast<size_t>(PTHREAD_STACK_MIN);
  while (self.Next()) {
    Join(Start([](void*) -> void* { return Pause(kShortLife), nullptr; }, nullptr, smallest),
         nullptr);
  }
}

int g_empty_pipe[2];

void* BlocksForEver(void*) {
  for (char c;;) Must(read(g_empty_pipe[0], &c, 1) != -1, "a read is restarted");
}

void* SpinsForEver(void*) {
  pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
  for (;;) Compute(1);
}

// The C library's own two do not bear each other: a thread that is cancelled while it answers a
// setgid never ends, and neither does the setgid.
pthread_mutex_t g_cancel_or_set_ids = PTHREAD_MUTEX_INITIALIZER;

void CancelsThreads(Hostile& self) {
  while (self.Next()) {
    const pthread_t thread = Start(self.steps % 2 == 0 ? BlocksForEver : SpinsForEver);
    Pause(kShortLife);
    pthread_mutex_lock(&g_cancel_or_set_ids);
    Must(pthread_cancel(thread) == 0, "pthread_cancel");
    Join(thread, PTHREAD_CANCELED);
    pthread_mutex_unlock(&g_cancel_or_set_ids);
  }
}

void Fork(int (*child_main)()) {
  const pid_t child = fork();
  if (child == 0) _exit(child_main());
  int status = -1;
  Must(child > 0 && waitpid(child, &status, 0) == child, "waitpid is restarted");
  Must(status == 0, "a child ends well");
  if (status != 0) fprintf(stderr, "the child's status: 0x%x\n", static_cast<unsigned>(status));
  Pause(100000);
}

void ForksChildren(Hostile& self) {
  while (self.Next()) Fork([] { return 0; });
}

void ForksUsers(Hostile& self) {
  while (self.Next()) Fork(UseLibraryInChild);
}

void BlocksAllSignals(Hostile& self) {
  while (self.Next()) {
    const uint64_t all = ~uint64_t{0};
    uint64_t old = 0, now = 0;
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &all, &old, sizeof(all));
    Pause(10000);
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &old, nullptr, sizeof(all));
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, nullptr, &now, sizeof(all));
    Must(now == old, "the signal mask is kept");
  }
}

void HoldsLoaderList(Hostile& self) {
  while (self.Next()) {
    dl_iterate_phdr([](struct dl_phdr_info*, size_t, void*) { return Pause(3000), 1; }, nullptr);
  }
}

// A stack for signal handlers, of the calling thread.
struct SignalStack {
  SignalStack() { Give({room, 0, sizeof(room)}); }
  ~SignalStack() { Give({nullptr, SS_DISABLE, 0}); }
  static void Give(const stack_t& stack) { Must(sigaltstack(&stack, nullptr) == 0, "sigaltstack"); }
  char room[64 * 1024];
};

void OnSignalStack(int) {
  Compute(100000);
}

void RunsOnSignalStack(Hostile& self) {
  const SignalStack stack;
  while (self.Next()) tgkill(getpid(), self.tid, SIGUSR1);
}

thread_local sigjmp_buf* t_overflow = nullptr;

void OnOverflow(int) {
  if (t_overflow == nullptr) abort();
  Compute(20000);
  siglongjmp(*t_overflow, 1);
}

NOINLINE int Recurse(int depth) {
  volatile char frame[64];
  frame[depth % 64] = 1;
  if (depth % 512 == 0) Compute(1000);
  return depth == 0 ? 0 : Recurse(depth - 1) + frame[depth % 64];
}

void OverflowsStack(Hostile& self) {
  const SignalStack stack;
  while (self.Next()) {
    Must(Recurse(20000) == 20000, "a deep recursion returns");
    sigjmp_buf before;
    t_overflow = &before;
    if (sigsetjmp(before, 1) == 0) Must(Recurse(INT_MAX) == 0, "the stack has an end");
    t_overflow = nullptr;
  }
}

// A function that calls the one it is given, and that no table describes.
#if defined(__x86_64__)
constexpr unsigned char kBareCall[] = {0x48, 0x83, 0xec, 0x08, 0xff, 0xd7,
                                       0x48, 0x83, 0xc4, 0x08, 0xc3};
#else
constexpr unsigned char kBareCall[] = {0xfe, 0x0f, 0x1f, 0xf8, 0x00, 0x00, 0x3f, 0xd6,
                                       0xfe, 0x07, 0x41, 0xf8, 0xc0, 0x03, 0x5f, 0xd6};
#endif

void RunsAnonymousCode(Hostile& self) {
  while (self.Next()) {
    void* const page =
        mmap(nullptr, 4096, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    Must(page != MAP_FAILED, "mmap");
    memcpy(page, kBareCall, sizeof(kBareCall));
    __builtin___clear_cache(static_cast<char*>(page), static_cast<char*>(page) + 4096);
    reinterpret_cast<void (*)(void (*)())>(page)([] { Compute(50000); });
    munmap(page, 4096);
  }
}

// Its caller's frame pointer and its own return address are rubbish while it computes.
NOINLINE void BreakFrame(uint64_t garbage) {
  volatile auto* frame = static_cast<volatile uint64_t*>(__builtin_frame_address(0));
  const uint64_t saved[2] = {frame[0], frame[1]};
  frame[0] = garbage ^ 8;
  frame[1] = garbage;
  Compute(50000);
  frame[0] = saved[0];
  frame[1] = saved[1];
}

void ReturnsToGarbage(Hostile& self) {
  static int s_data;
  while (self.Next()) {
    const uint64_t stack = reinterpret_cast<uint64_t>(__builtin_frame_address(0));
    const uint64_t garbage[] = {0,
                                1,
                                ~uint64_t{0},
                                0x8000000000000000,
                                0xdeadbeefdeadbeef,
                                stack,
                                stack - 64,
                                (stack | 0xfff) - 3,
                                reinterpret_cast<uint64_t>(&s_data),
                                reinterpret_cast<uint64_t>(&malloc) + self.steps % 4096};
    BreakFrame(garbage[self.steps % (sizeof(garbage) / sizeof(garbage[0]))]);
  }
}

// The C library reaches every thread with the unwinder's own signal.
void ChangesIds(Hostile& self) {
  while (self.Next()) {
    pthread_mutex_lock(&g_cancel_or_set_ids);
    Must(setgid(getgid()) == 0 && setuid(getuid()) == 0, "setgid and setuid");
    pthread_mutex_unlock(&g_cancel_or_set_ids);
    Pause(10000);
  }
}

void HoldsStdioAndLocale(Hostile& self) {
  FILE* const file = fopen("/dev/null", "w");
  while (self.Next()) {
    flockfile(file);
    fprintf(file, "%s %d %f", strerror(static_cast<int>(self.steps % 200)), 12, 3.4);
    Compute(10000);
    funlockfile(file);
    setlocale(LC_ALL, "C");
    freelocale(newlocale(LC_ALL_MASK, "C", nullptr));
    const time_t now = time(nullptr);
    struct tm local;
    Must(localtime_r(&now, &local) != nullptr, "localtime_r");
  }
  fclose(file);
}

// Calls that the kernel has to restart, and the one who gives them what they wait for.
int g_pipe[2], g_lock_fds[2];
std::atomic<int> g_futex{0};

long Futex(int operation, int value) {
  return syscall(SYS_futex, reinterpret_cast<int*>(&g_futex), operation, value, nullptr, nullptr,
                 0);
}

void WaitsInRead(Hostile& self) {
  for (char c; self.Next();) Must(read(g_pipe[0], &c, 1) == 1 && c == 'x', "read is restarted");
}

void WaitsInFlock(Hostile& self) {
  while (self.Next()) {
    Must(flock(g_lock_fds[0], LOCK_EX) == 0, "flock is restarted");
    flock(g_lock_fds[0], LOCK_UN);
  }
}

void WaitsInFutex(Hostile& self) {
  while (self.Next()) {
    const long result = Futex(FUTEX_WAIT, g_futex.load());
    Must(result == 0 || errno == EAGAIN, "a futex wait is restarted");
  }
}

void FeedsWaiters(Hostile& self) {
  while (self.Next() || g_at_work > 1) {
    flock(g_lock_fds[1], LOCK_EX);
    Pause(4000);
    flock(g_lock_fds[1], LOCK_UN);
    ++g_futex;
    Futex(FUTEX_WAKE, INT_MAX);
    Must(write(g_pipe[1], "xx", 2) == 2, "write");
  }
}

void PrepareWaits() {
  char path[] = "/tmp/quorvel-storm-XXXXXX";
  g_lock_fds[0] = mkostemp(path, O_CLOEXEC);
  g_lock_fds[1] = open(path, O_RDWR | O_CLOEXEC);
  unlink(path);
  Must(pipe2(g_pipe, O_CLOEXEC) == 0 && pipe2(g_empty_pipe, O_CLOEXEC) == 0, "pipe2");
  Must(g_lock_fds[0] >= 0 && g_lock_fds[1] >= 0, "mkostemp");
}

void InstallHandler(int signal_number, void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  action.sa_flags = SA_ONSTACK | SA_RESTART;
  Must(sigaction(signal_number, &action, nullptr) == 0, "sigaction");
}

void* Body(void* argument) {
  Hostile& self = *static_cast<Hostile*>(argument);
  self.tid = gettid();
  ++g_at_work;
  self.kind->run(self);
  --g_at_work;
  return nullptr;
}

const HostileKind kHostileKinds[] = {
    {"allocates", 4, Allocates, "Allocates"},
    {"loads libraries", 3, LoadsLibraries, nullptr,
     kThreadSanitizer ? "the thread sanitizer does not know the loader's lock" : nullptr},
    {"throws", 4, Throws, "Throws"},
    {"starts threads", 2, StartsThreads, "StartsThreads",
     kThreadSanitizer ? "a thread takes signals before the thread sanitizer knows it" : nullptr},
    {"cancels threads", 2, CancelsThreads, "CancelsThreads",
     kThreadSanitizer ? "the thread sanitizer's own frames cannot be unwound" : nullptr},
    {"forks", 2, ForksChildren, "ForksChildren"},
    {"forks users of the library", 2, ForksUsers, "ForksUsers",
     kSanitizer ? "the sanitizers' locks may be taken in the child" : nullptr},
    {"blocks signals", 4, BlocksAllSignals, "BlocksAllSignals"},
    {"holds the loader's list", 3, HoldsLoaderList, "HoldsLoaderList"},
    {"on a signal stack", 4, RunsOnSignalStack, "RunsOnSignalStack"},
    {"overflows its stack", 4, OverflowsStack, nullptr,
     kThreadSanitizer ? "the thread sanitizer's own call stack ends first" : nullptr},
    {"anonymous code", 4, RunsAnonymousCode, nullptr},
    {"garbage return address", 4, ReturnsToGarbage, nullptr},
    {"changes ids", 1, ChangesIds, "ChangesIds"},
    {"stdio and locale", 4, HoldsStdioAndLocale, "HoldsStdioAndLocale"},
    {"read", 4, WaitsInRead, "WaitsInRead"},
    {"flock", 4, WaitsInFlock, "WaitsInFlock"},
    {"futex", 4, WaitsInFutex, "WaitsInFutex"},
    {"feeds", 1, FeedsWaiters, "FeedsWaiters"},
};

}  // namespace

bool Hostile::Next() {
  const int mark = 1000 + static_cast<int>(++steps % 1000);
  errno = mark;
  Compute(20000);
  Must(errno == mark, "errno is kept");
  Pause(4000);
  return g_running;
}

std::vector<Hostile*> StartHostileThreads() {
  PrepareWaits();
  InstallHandler(SIGUSR1, OnSignalStack);
  InstallHandler(SIGSEGV, OnOverflow);
  g_running = true;
  std::vector<Hostile*> threads;
  for (const HostileKind& kind : kHostileKinds) {
    if (kind.skip != nullptr) {
      printf("[  SKIPPED ] hostile threads \"%s\": %s\n", kind.name, kind.skip);
      continue;
    }
    for (int i = 0; i < kind.count; ++i) threads.push_back(new Hostile{&kind});
  }
  for (Hostile* hostile : threads) hostile->thread = Start(Body, hostile);
  for (const Hostile* hostile : threads) {
    while (hostile->steps == 0) Pause(1000);
  }
  return threads;
}

void JoinHostileThreads(const std::vector<Hostile*>& threads) {
  g_running = false;
  struct timespec deadline;
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += 60;
  for (Hostile* hostile : threads) {
    if (pthread_timedjoin_np(hostile->thread, nullptr, &deadline) != 0) {
      fprintf(stderr, "deadlock: \"%s\", thread %d\n", hostile->kind->name, hostile->tid.load());
      abort();
    }
    delete hostile;
  }
}
