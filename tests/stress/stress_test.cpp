// The library under load and in hostile company: threads that are in the worst places when the
// unwinder comes and see that nothing happens to them, threads older than the library, forks, and
// watches in the hands of many threads.

#include <android/log.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <link.h>
#include <quorvel/quorvel.h>
#include <sched.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <deque>
#include <random>
#include <set>
#include <thread>

#include "core/watch_registry.h"
#include "log/incident_close.h"
#include "log/incident_header.h"
#include "log/kernel_backtrace.h"
#include "log/log_file.h"
#include "log/quorvel_log.h"
#include "log/user_backtrace.h"
#include "support/parked_thread.h"
#include "support/surroundings.h"
#include "support/test_root.h"
#include "unwind/unwindstack_wrapper.h"

namespace {

#define NOINLINE __attribute__((noinline))

constexpr uint32_t kStacks = QUORVEL_FLAG_LOG | QUORVEL_FLAG_BACKTRACE;

// QUORVEL_STRESS_SECONDS is for both storms together.
unsigned StormSeconds() {
  const char* seconds = getenv("QUORVEL_STRESS_SECONDS");
  return static_cast<unsigned>(seconds != nullptr ? atoi(seconds) : 20) / 2;
}

std::atomic<bool> g_running{true};
int g_pipe[2];

void Compute(int turns) {
  for (int i = 0; i < turns; ++i) asm volatile("" ::: "memory");
}

NOINLINE void ThrowBelow(int depth) {
  const std::string unwound(50, 'x');
  if (depth == 0) throw unwound;
  ThrowBelow(depth - 1);
}

NOINLINE int Recurse(int depth) {
  if (depth % 512 == 0) Compute(1000);
  volatile int below = depth == 0 ? 0 : Recurse(depth - 1);
  return below + 1;
}

// A copy of this works anywhere: it reaches nothing relative to itself. No table describes it.
__attribute__((noinline, no_sanitize("thread"))) void CallBare(void (*function)()) {
  function();
  asm volatile("" ::: "memory");
}

// Its caller's frame pointer and its own return address are rubbish while it computes.
NOINLINE void ReturnToGarbage() {
  volatile auto* const frame = static_cast<volatile uint64_t*>(__builtin_frame_address(0));
  const uint64_t saved[2] = {frame[0], frame[1]}, stack = reinterpret_cast<uint64_t>(frame),
                 one = 1;
  const uint64_t code = reinterpret_cast<uint64_t>(&malloc) + stack % 4096;
  for (const uint64_t garbage : {one - 1, one, ~one, one << 63, stack, (stack | 0xfff) - 3, code}) {
    frame[0] = garbage ^ 8;
    frame[1] = garbage;
    Compute(50000);
  }
  frame[0] = saved[0];
  frame[1] = saved[1];
}

const struct Kind {
  const char* name;
  bool has_way_up;  // to the thread's beginning, within the limit
  void (*step)();
  // Which knows no loader's lock, has a thread that takes no signal, and has no state left for one
  // that is at its end.
  bool under_tsan = true;
} kKinds[] = {
    {"allocates", true,
     [] {
       void* kept[16] = {};
       for (size_t i = 0; i < 8192; ++i) {
         free(kept[i % 16]);
         kept[i % 16] = malloc(i * 7919 % (i % 512 == 0 ? 400000 : 3000));
       }
       for (void* memory : kept) free(memory);
     }},
    {"loads libraries", false,
     [] {
       void* const library = dlopen(UNWIND_PLUGIN, RTLD_NOW);
       using Call = int (*)(void (*)(void*), void*);
       const auto call = reinterpret_cast<Call>(dlsym(library, "plugin_call_a"));
       EXPECT_EQ(call([](void*) { Compute(20000); }, nullptr), 2);
       dlclose(library);
     },
     false},
    {"throws", true,
     [] {
       try {
         ThrowBelow(8);
       } catch (const std::string& text) {
         EXPECT_EQ(text.size(), 50u);
       }
     }},
    // They live much longer than their end takes: one that is caught in that is silent.
    {"starts threads", true, [] { std::thread(usleep, 100000).join(); }, false},
    {"forks", true,
     [] {
       if (Emulated()) return;  // in a child the emulator waits for its own locks
       const pid_t child = fork();
       if (child == 0) {
         if (SANITIZED) _exit(0);  // the locks of its heap may be taken
         alarm(20);
         QuorvelInsertLogTitle(1, "child", 0);
         unwindstack_wrapper unwinder;
         ucontext_t here;  // a walk that the fork fell into leaves frame pointers alone to go by
         getcontext(&here);
         unwinder.unwind(-1, &here, 64);
         _exit(unwinder.num_frames > 2 ? 0 : 1);
       }
       int status = -1;
       EXPECT_EQ(waitpid(child, &status, 0), child) << "not restarted";
       EXPECT_EQ(status, 0);
     }},
    {"blocks the signal", true,
     [] {
       BlockUnwindSignal(true);
       usleep(10000);
       BlockUnwindSignal(false);
     }},
    {"holds the loader's list", true,
     [] {
       const auto hold = [](struct dl_phdr_info*, size_t, void*) { return usleep(3000), 1; };
       dl_iterate_phdr(hold, nullptr);
     }},
    {"on a signal stack", true,
     [] {
       char room[64 * 1024];
       const stack_t stack = {room, 0, sizeof(room)}, none = {nullptr, SS_DISABLE, 0};
       EXPECT_EQ(sigaltstack(&stack, nullptr), 0);
       tgkill(getpid(), gettid(), SIGUSR1);
       EXPECT_EQ(sigaltstack(&none, nullptr), 0);
     }},
    {"deep recursion", false, [] { EXPECT_EQ(Recurse(20000), 20001); }},
    {"anonymous code", false,
     [] {
       constexpr int kAll = PROT_READ | PROT_WRITE | PROT_EXEC;
       void* const page = mmap(nullptr, 4096, kAll, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
       memcpy(page, reinterpret_cast<const void*>(&CallBare), 64);
       __builtin___clear_cache(static_cast<char*>(page), static_cast<char*>(page) + 64);
       reinterpret_cast<decltype(&CallBare)>(page)([] { Compute(50000); });
       munmap(page, 4096);
     }},
    {"garbage return address", false, ReturnToGarbage},
    {"changes ids", true, [] { EXPECT_EQ(setgid(getgid()), 0); },
     false},  // by the unwinder's own signal
    {"unwinds another", true,
     [] {
       unwindstack_wrapper unwinder;
       EXPECT_TRUE(unwinder.unwind(getpid(), nullptr, 64)) << unwinder.error;
       std::this_thread::sleep_for(std::chrono::seconds(3));  // the incident has waited
     }},
    {"waits in read", true,
     [] {
       char c = 0;
       EXPECT_TRUE(read(g_pipe[0], &c, 1) == 1 && c == 'x') << "not restarted";
     }},
};

struct Hostile {
  explicit Hostile(const Kind& its_kind) : kind(its_kind) {}
  void RunHostile() {
    tid = gettid();
    sigset_t mask = {}, now = {};
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    for (; g_running; ++steps) {
      errno = 4711;
      Compute(20000);
      EXPECT_EQ(errno, 4711);
      kind.step();
      usleep(4000);
      pthread_sigmask(SIG_BLOCK, nullptr, &now);
      EXPECT_EQ(memcmp(&mask, &now, sizeof(mask)), 0);
    }
  }

  const Kind& kind;
  std::atomic<int> tid{0}, steps{0};
  std::thread thread{&Hostile::RunHostile, this};
};

// The whole response to an expired watch, but for its rate limit. The text of its log.
std::string MakeIncident(int tid) {
  QuorvelInitLog(kStacks, false);
  QuorvelInsertLogTitle(tid, "storm", time(nullptr));
  QuorvelFlushLog();
  QuorvelKernBacktrace(tid);
  QuorvelUserBacktrace(tid);
  QuorvelEndLog();
  return test_root::ReadFile(QuorvelLastLogPath());
}

// Exactly one, from its first line to the next empty one.
std::string SectionOf(int tid, const std::string& text) {
  const std::string header = "\n\ntid = " + std::to_string(tid) + "\n  #00 ";
  const size_t at = text.find(header);
  if (at == std::string::npos || text.find(header, at + 1) != std::string::npos) return "";
  return text.substr(at, text.find("\n\n", at + 2) - at);
}

TEST(IncidentStorm, EveryThreadIsAccountedForAndGoesOnAsIfNothingHadHappened) {
  alarm(StormSeconds() + 90);
  static std::atomic<int> partings{0};  // of a thread, or of the unwinder, before the other is done
  __android_log_set_logger([](const __android_log_message* message) {
    partings += strstr(message->message, "handler to indicate it finished") != nullptr ||
                strstr(message->message, "unwind thread to indicate it completed") != nullptr;
  });
  struct sigaction action = {};
  action.sa_handler = [](int) { Compute(100000); };
  action.sa_flags = SA_ONSTACK | SA_RESTART;
  ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
  ASSERT_EQ(pipe(g_pipe), 0);
  quorvel_init();
  std::deque<Hostile> threads;
  for (const Kind& kind : kKinds) {
    if (kThreadSanitizer && !kind.under_tsan) continue;
    for (int i = 0; i < 5; ++i) threads.emplace_back(kind);
  }
  for (const Hostile& thread : threads) {
    while (thread.tid == 0) sched_yield();
  }
  const time_t end = time(nullptr) + StormSeconds();
  size_t incidents = 0;
  for (; time(nullptr) < end && !HasFailure(); ++incidents) {
    ASSERT_EQ(write(g_pipe[1], "xxxxxxxxxxxxxxxxxxxx", 20), 20);  // for those who wait in read
    const time_t start = time(nullptr);
    const std::string text = MakeIncident(threads[incidents % threads.size()].tid);
    time_t limit = Emulated() ? 40 : 20;
    for (size_t at = 0; (at = text.find("Unwind failed:", at)) != std::string::npos; ++at) {
      limit += 5;  // of silence
    }
    EXPECT_LT(time(nullptr) - start, limit);
    for (const Hostile& thread : threads) {
      const std::string section = SectionOf(thread.tid, text);
      SCOPED_TRACE(thread.kind.name + (" " + std::to_string(thread.tid)) + section);
      EXPECT_NE(section, "") << text;
      EXPECT_EQ(section.find("  #64 "), std::string::npos);
      EXPECT_TRUE(!thread.kind.has_way_up || section.find("RunHostile") != std::string::npos);
    }
  }
  EXPECT_EQ(partings, 0);
  printf("%zu incidents with %zu hostile threads\n", incidents, threads.size());
  g_running = false;
  ASSERT_EQ(write(g_pipe[1], "xxxxx", 5), 5);
  for (Hostile& thread : threads) {
    thread.thread.join();
    EXPECT_GT(thread.steps, 1) << thread.kind.name;
  }
}

NOINLINE void AwaitEnd(void* began) {
  *static_cast<std::atomic<int>*>(began) = gettid();
  while (g_running) usleep(2000);
}

std::vector<std::string> Logs() {
  std::vector<std::string> texts;
  for (const std::string& name : test_root::List(test_root::kLogDir)) {
    if (name[0] != '.')
      texts.push_back(test_root::ReadFile(test_root::Path(test_root::kLogDir + name)));
  }
  return texts;
}

TEST(LateLoad, ThreadsThatWereThereBeforeAreInTheIncident) {
  g_running = true;
  std::atomic<int> tid{0};
  std::thread thread(AwaitEnd, &tid);
  while (tid == 0) sched_yield();
  test_root::MakeEmptyDir(test_root::kLogDir);
  void* const library = dlopen(QUORVEL_LIBRARY, RTLD_NOW);
  ASSERT_NE(library, nullptr) << dlerror();
  reinterpret_cast<decltype(&quorvel_init)>(dlsym(library, "quorvel_init"))();
  void* const start = dlsym(library, "__quorvel_start_ex");
  const auto begin = std::chrono::steady_clock::now();
  reinterpret_cast<decltype(&__quorvel_start_ex)>(start)("late", 1, nullptr, nullptr, kStacks);
  dlclose(library);  // it stays
  std::string section;
  for (int i = 0; i < 1000 && section.find("AwaitEnd") == std::string::npos; ++i) {
    usleep(10000);
    EXPECT_TRUE(kThreadSanitizer || setgid(getgid()) == 0);  // signals every thread
    if (!Logs().empty()) section = SectionOf(tid, Logs()[0]);
  }
  EXPECT_GT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1)) << "too early";
  EXPECT_NE(section.find("AwaitEnd"), std::string::npos) << section;
  g_running = false;
  thread.join();
}

// In the child. Its exit status: 0, or the number of the promise that was not kept.
int UseInChild(int parents_log, const std::atomic<int>& parents_watch) {
  alarm(30);
  if (fcntl(parents_log, F_GETFD) != -1) return 1;
  QuorvelPrintLine("a line of the child\n");
  if (__quorvel_start_ex("child", 1, nullptr, nullptr, 0) != QUORVEL_INVALID_ID) return 2;
  quorvel_init();
  __quorvel_start_ex("child", 1, nullptr, nullptr, kStacks);
  while (QuorvelGetLogFd() == -1) usleep(1000);
  while (QuorvelGetLogFd() != -1) usleep(1000);
  return parents_watch == 0 ? 0 : 3;
}

TEST(Fork, ChildHasNoPartInTheParentsIncidentAndMayBeginItsOwn) {
  SKIP_UNDER_EMULATION("a forked child cannot start threads");
  if (kThreadSanitizer) GTEST_SKIP() << "the thread sanitizer has no threads in a child";
  alarm(60);
  test_root::MakeEmptyDir(test_root::kLogDir);
  std::atomic<int> first{0}, second{0};
  g_running = true;
  quorvel_init();
  __quorvel_start_ex("parent", 1, AwaitEnd, &first, QUORVEL_FLAG_LOG);
  __quorvel_start_ex("parent", 2, AwaitEnd, &second, 0);  // in a child that kept it the next
  while (first == 0) usleep(2000);
  const int log = QuorvelGetLogFd();
  const pid_t child = fork();
  if (child == 0) _exit(UseInChild(log, second));
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0) << "exit status " << WEXITSTATUS(status);
  EXPECT_EQ(second, 0) << "fired while another response is running";
  g_running = false;
  while (second == 0) usleep(2000);
  const std::vector<std::string> logs = Logs();
  ASSERT_EQ(logs.size(), 2u);
  EXPECT_NE(logs[0].find("timeout function: parent\n"), std::string::npos) << logs[0];
  EXPECT_EQ(logs[0].find("child"), std::string::npos) << logs[0];
  EXPECT_NE(logs[1].find("timeout function: child\n"), std::string::npos) << logs[1];
}

// The registry's storm: 16 threads start, move and end watches, each other's too, while the real
// monitor thread ticks as fast as it can and goes idle whenever nothing is left to fire.

std::atomic<bool> g_fast_ticks{false};
std::atomic<uintptr_t> g_tried{0};
std::atomic<size_t> g_started{0}, g_ended{0}, g_fired{0};
std::atomic<uint32_t> g_ids[160];  // more than there are nodes, so that they run out
thread_local bool t_refused;

// On the monitor thread alone. Every watch has a number of its own.
void Fire(void* number) {
  static std::set<void*> fired;
  EXPECT_TRUE(fired.insert(number).second) << "fired twice";
  if (fired.size() > 1000) fired.erase(fired.begin());
  ++g_fired;
}

// The log is the only one to say that there was nothing to end.
void NoteRefusal(const __android_log_message* message) {
  t_refused |= strstr(message->message, " id 0x") != nullptr;
}

void Work(unsigned seed, int steps) {
  std::mt19937 random(seed);
  for (int step = 0; step < steps; ++step) {
    std::atomic<uint32_t>& place = g_ids[random() % std::size(g_ids)];
    const int32_t timeout = static_cast<int32_t>(random() % 70);
    const unsigned action = random() % 4;
    if (action < 2) {
      void* const number = reinterpret_cast<void*>(++g_tried);
      const uint32_t id = __quorvel_start_ex("storm", timeout, Fire, number, 0);
      if (id == QUORVEL_INVALID_ID) continue;
      place = id;
      ++g_started;
    } else if (action == 2) {
      quorvel_update(place, timeout);
    } else {
      t_refused = false;
      quorvel_end(place);
      g_ended += !t_refused;
    }
  }
}

// Waits for all that must fire; then every node is free once.
void VerifyRound() {
  const time_t deadline = time(nullptr) + 30;
  while (g_fired + g_ended != g_started || QuorvelStartedCount() != QuorvelEndedCount()) {
    ASSERT_LT(time(nullptr), deadline) << g_started << '-' << g_ended << '-' << g_fired << " wait";
    sched_yield();
  }
  QuorvelMutexLock lock(&g_registry.lock);
  std::set<QuorvelNode*> nodes;
  while (QuorvelNode* node = QuorvelGetFreeNode()) ASSERT_TRUE(nodes.insert(node).second);
  ASSERT_EQ(nodes.size(), static_cast<size_t>(kPoolSize));
  for (QuorvelNode* node : nodes) QuorvelReleaseNode(node);
}

TEST(RegistryStorm, EveryWatchFiresOnceOrIsEndedAndNoStartIsLost) {
  alarm(StormSeconds() + 60);
  g_fast_ticks = true;
  __android_log_set_logger(NoteRefusal);
  quorvel_init();
  std::mt19937 random(std::random_device{}());
  const time_t end = time(nullptr) + StormSeconds();
  while (time(nullptr) < end) {
    constexpr int kSteps[] = {1, 3, 100, 3000};
    const int steps = kSteps[random() % 4];
    std::vector<std::thread> threads;
    for (int i = 0; i < 16; ++i) threads.emplace_back(Work, random(), steps);
    for (std::thread& thread : threads) thread.join();
    ASSERT_NO_FATAL_FAILURE(VerifyRound());
  }
  g_fast_ticks = false;
  printf("%zu watches: %zu fired, %zu ended\n", g_started.load(), g_fired.load(), g_ended.load());
  EXPECT_TRUE(g_fired > 0 && g_ended > 0);
}

}  // namespace

// The monitor's, see CMakeLists.txt: in this storm its seconds pass at once.
extern "C" unsigned __real_sleep(unsigned seconds);
extern "C" unsigned __wrap_sleep(unsigned seconds);
unsigned __wrap_sleep(unsigned seconds) {
  return g_fast_ticks ? static_cast<unsigned>(sched_yield()) : __real_sleep(seconds);
}
