// 16 threads start, move and end watches, each other's too, while the real monitor thread ticks as
// fast as it can and goes idle whenever nothing is left to fire.
#include <android/log.h>
#include <gtest/gtest.h>
#include <quorvel/quorvel.h>
#include <sched.h>
#include <string.h>

#include <random>
#include <set>
#include <thread>

#include "core/watch_registry.h"
#include "support/surroundings.h"

namespace {

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
