// Incidents while threads are in the worst places when the unwinder comes: each must be in the log,
// and none may notice.

#include <android/log.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>
#include <ucontext.h>

#include <deque>

#include "core/timeout_response.h"
#include "log/incident_header.h"
#include "log/log_file.h"
#include "support/child.h"
#include "support/parked_thread.h"
#include "support/surroundings.h"
#include "support/test_root.h"
#include "unwind/unwindstack_wrapper.h"

namespace {

#define NOINLINE __attribute__((noinline))

constexpr uint32_t kStacks = QUORVEL_FLAG_LOG | QUORVEL_FLAG_BACKTRACE;

std::atomic<bool> g_running{true};

void Compute(int turns) {
  for (int i = 0; i < turns; ++i) asm volatile("" ::: "memory");
}

NOINLINE void ThrowBelow(int depth) {
  const std::string unwound(50, 'x');
  if (depth == 0) throw unwound;
  ThrowBelow(depth - 1);
}

const struct Kind {
  const char* name;
  bool has_way_up;  // to the thread's beginning, within the limit
  void (*step)();
  // The thread sanitizer does not know the loader's lock, has a thread of its own that takes no
  // signal, and has no state left for a thread that ends.
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
       EXPECT_EQ(StatusOf(child), 0);
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
       char space[64 * 1024];
       const stack_t stack = {space, 0, sizeof(space)}, none = {nullptr, SS_DISABLE, 0};
       EXPECT_EQ(sigaltstack(&stack, nullptr), 0);
       tgkill(getpid(), gettid(), SIGUSR1);
       EXPECT_EQ(sigaltstack(&none, nullptr), 0);
     }},
    {"changes ids", true, [] { EXPECT_EQ(setgid(getgid()), 0); },
     false},  // by the unwinder's own signal
    {"unwinds another", true,
     [] {
       unwindstack_wrapper unwinder;
       EXPECT_TRUE(unwinder.unwind(getpid(), nullptr, 64)) << unwinder.error;
       std::this_thread::sleep_for(std::chrono::seconds(3));  // the incident has waited
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

// The one section of a thread's user stack in an incident's text, from its first line to the next
// empty one; empty if there is none or more than one.
std::string SectionOf(int tid, const std::string& text) {
  const std::string header = "\n\ntid = " + std::to_string(tid) + "\n  #00 ";
  const size_t at = text.find(header);
  if (at == std::string::npos || text.find(header, at + 1) != std::string::npos) return "";
  return text.substr(at, text.find("\n\n", at + 2) - at);
}

// The whole response to an expired watch. The text of its log.
std::string MakeIncident(int tid) {
  QuorvelResetResponseInChild();  // no incident is one too many
  QuorvelTimeoutResponse({0, nullptr, tid, "storm", time(nullptr), nullptr, kStacks}, false);
  return test_root::ReadFile(QuorvelLastLogPath());
}

class IncidentStorm : public testing::Test {
 protected:
  IncidentStorm() {
    __android_log_set_logger([](const __android_log_message* message) {
      partings_ += strstr(message->message, "handler to indicate it finished") != nullptr ||
                   strstr(message->message, "unwind thread to indicate it completed") != nullptr;
    });
    struct sigaction action = {};
    action.sa_handler = [](int) { Compute(100000); };
    action.sa_flags = SA_ONSTACK | SA_RESTART;
    EXPECT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    quorvel_init();
    for (const Kind& kind : kKinds) {
      if (kThreadSanitizer && !kind.under_tsan) continue;
      for (int i = 0; i < kThreadsPerKind; ++i) threads_.emplace_back(kind);
    }
    for (const Hostile& thread : threads_) {
      while (thread.tid == 0) sched_yield();
    }
  }
  ~IncidentStorm() override {
    g_running = false;
    for (Hostile& thread : threads_) {
      thread.thread.join();
      EXPECT_GT(thread.steps, 1) << thread.kind.name;
    }
  }

  void ExpectAllAccountedFor(const std::string& text) const {
    for (const Hostile& thread : threads_) {
      const std::string section = SectionOf(thread.tid, text);
      SCOPED_TRACE(thread.kind.name + (" " + std::to_string(thread.tid)) + section);
      EXPECT_NE(section, "") << text;
      EXPECT_EQ(section.find("  #64 "), std::string::npos);
      EXPECT_TRUE(!thread.kind.has_way_up || section.find("RunHostile") != std::string::npos);
    }
  }

  static constexpr int kThreadsPerKind = 5;
  // Of a thread, or of the unwinder, before the other is done.
  static inline std::atomic<int> partings_{0};
  std::deque<Hostile> threads_;
};

TEST_F(IncidentStorm, EveryThreadIsAccountedForAndGoesOnAsIfNothingHadHappened) {
  constexpr unsigned kHang = 300;  // seconds for one incident on a loaded machine
  using Clock = std::chrono::steady_clock;
  const Clock::time_point end = Clock::now() + std::chrono::seconds(StormSeconds());
  size_t incidents = 0;
  for (; Clock::now() < end && !HasFailure(); ++incidents) {
    alarm(kHang);
    ExpectAllAccountedFor(MakeIncident(threads_[incidents % threads_.size()].tid));
  }
  printf("%zu incidents with %zu hostile threads, %d partings\n", incidents, threads_.size(),
         partings_.load());
  // Sanitizers are slow enough for five seconds to pass in an exchange if the machine is loaded.
  EXPECT_TRUE(SANITIZED || partings_ == 0);
}

TEST(LateLoad, ThreadsThatWereThereBeforeAreInTheIncident) {
  const ParkedThread older(Sleep);
  test_root::MakeEmptyDir(test_root::kLogDir);
  void* const library = dlopen(QUORVEL_LIBRARY, RTLD_NOW);
  ASSERT_NE(library, nullptr) << dlerror();
  reinterpret_cast<decltype(&quorvel_init)>(dlsym(library, "quorvel_init"))();
  void* const start = dlsym(library, "__quorvel_start_ex");
  reinterpret_cast<decltype(&__quorvel_start_ex)>(start)("late", 1, nullptr, nullptr, kStacks);
  dlclose(library);  // it stays
  std::string section;
  for (int i = 0; i < 1000 && section.find("ParkedThread") == std::string::npos; ++i) {
    usleep(10000);
    EXPECT_TRUE(kThreadSanitizer || setgid(getgid()) == 0);  // signals every thread
    for (const std::string& name : test_root::List(test_root::kLogDir)) {
      const std::string log = test_root::Path(test_root::kLogDir + name);
      section = SectionOf(older.tid(), test_root::ReadFile(log));
    }
  }
  EXPECT_NE(section.find("ParkedThread"), std::string::npos) << section;
}

}  // namespace
