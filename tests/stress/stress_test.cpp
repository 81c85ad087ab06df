// The library in the company of threads older than it, forks, and watches in the hands of many
// threads.

#include <android/log.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <quorvel/quorvel.h>
#include <sched.h>
#include <string.h>
#include <sys/wait.h>

#include <random>
#include <set>
#include <thread>

#include "core/watch_registry.h"
#include "log/quorvel_log.h"
#include "stress/storm.h"
#include "support/surroundings.h"
#include "support/test_root.h"

namespace {

std::atomic<bool> g_running{true};

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
  const unsigned seed = std::random_device{}();
  printf("seed %u\n", seed);
  std::mt19937 random(seed);
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
