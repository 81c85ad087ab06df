// 16 threads start, move and end watches, each other's too, while the real monitor thread ticks as
// fast as it can and goes idle whenever nothing is left to fire.

#include <android/log.h>
#include <gtest/gtest.h>
#include <quorvel/quorvel.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "core/watch_registry.h"
#include "stress/storm.h"

extern "C" {
unsigned __real_sleep(unsigned seconds);
unsigned __wrap_sleep(unsigned seconds);
}

namespace {

constexpr size_t kThreads = 16;
constexpr size_t kShelf = 160;  // more than there are nodes, so that they run out

struct Watch {
  std::atomic<int> fired{0};
  uint32_t id = QUORVEL_INVALID_ID;
  bool ended = false;
};

std::atomic<bool> g_fast_ticks{false};
std::atomic<size_t> g_fired{0};
thread_local bool t_refused;

void Fire(void* watch) {
  static_cast<Watch*>(watch)->fired.fetch_add(1);
  g_fired.fetch_add(1);
}

// The log is the only one to say that an end came too late.
void NoteRefusal(const __android_log_message* message) {
  if (strstr(message->message, "alrealy release") != nullptr) t_refused = true;
}

// Watches that are armed stand on a shelf; whoever takes one from it has it alone.
class Round {
 public:
  explicit Round(size_t steps) : steps_(steps), watches_(new Watch[kThreads * steps]) {}

  void Run(unsigned seed) {
    std::vector<std::thread> threads;
    for (size_t i = 0; i < kThreads; ++i) {
      threads.emplace_back([=] { Work(seed + static_cast<unsigned>(i), watches_ + i * steps_); });
    }
    for (std::thread& thread : threads) thread.join();
  }

  // Waits for all that must fire. The watches are freed only where all is well: others may yet.
  void Verify() {
    size_t started = 0, ended = 0;
    std::vector<uint32_t> ids;
    for (Watch* watch = watches_; watch != watches_ + kThreads * steps_; ++watch) {
      if (watch->id == QUORVEL_INVALID_ID) continue;
      ids.push_back(watch->id);
      ++started;
      ended += watch->ended;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (g_fired < started - ended || QuorvelStartedCount() != QuorvelEndedCount()) {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline)
          << g_fired << " of " << started - ended << " fired; started " << QuorvelStartedCount()
          << ", ended " << QuorvelEndedCount();
      std::this_thread::yield();
    }
    for (Watch* watch = watches_; watch != watches_ + kThreads * steps_; ++watch) {
      const bool must_fire = watch->id != QUORVEL_INVALID_ID && !watch->ended;
      ASSERT_EQ(watch->fired, must_fire) << "id " << watch->id;
    }
    std::sort(ids.begin(), ids.end());
    ASSERT_EQ(std::adjacent_find(ids.begin(), ids.end()), ids.end()) << "one id twice";
    ASSERT_NO_FATAL_FAILURE(VerifyEveryNodeFreeOnce());
    total_fired += g_fired.exchange(0);
    total_ended += ended;
    delete[] watches_;
  }

  static size_t total_fired, total_ended;

 private:
  void Work(unsigned seed, Watch* next) {
    std::mt19937 random(seed);
    for (size_t step = 0; step < steps_; ++step) {
      std::atomic<Watch*>& place = shelf_[random() % kShelf];
      Watch* watch = place.exchange(nullptr);
      if (watch == nullptr) {
        watch = next++;
        watch->id =
            __quorvel_start_ex("storm", 1 + static_cast<int32_t>(random() % 60), Fire, watch, 0);
        if (watch->id == QUORVEL_INVALID_ID) continue;
      } else if (random() % 3 == 0) {
        End(watch);
        continue;
      } else if (quorvel_update(watch->id, static_cast<int32_t>(random() % 130)) != watch->id) {
        continue;  // it has expired
      }
      watch = place.exchange(watch);
      if (watch != nullptr) End(watch);
    }
  }

  static void End(Watch* watch) {
    t_refused = false;
    quorvel_end(watch->id);
    watch->ended = !t_refused;
  }

  static void VerifyEveryNodeFreeOnce() {
    RegistryLock lock;
    std::set<QuorvelNode*> nodes;
    while (QuorvelNode* node = QuorvelGetFreeNode()) {
      ASSERT_TRUE(nodes.insert(node).second) << "free twice: node " << node->index;
    }
    ASSERT_EQ(nodes.size(), static_cast<size_t>(kPoolSize));
    for (QuorvelNode* node : nodes) QuorvelReleaseNode(node);
  }

  const size_t steps_;
  Watch* const watches_;
  std::atomic<Watch*> shelf_[kShelf] = {};
};
size_t Round::total_fired = 0, Round::total_ended = 0;

TEST(RegistryStorm, EveryWatchFiresOnceOrIsEndedAndNoStartIsLost) {
  const ScopedDeadline deadline(StormSeconds() + 60);
  g_fast_ticks = true;
  __android_log_set_logger(NoteRefusal);
  quorvel_init();
  std::mt19937 random(std::random_device{}());
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(StormSeconds());
  int rounds = 0;
  for (; std::chrono::steady_clock::now() < end; ++rounds) {
    constexpr size_t kSteps[] = {1, 3, 100, 3000};
    Round round(kSteps[random() % 4]);
    round.Run(static_cast<unsigned>(random()));
    ASSERT_NO_FATAL_FAILURE(round.Verify());
  }
  printf("%d rounds: %zu watches fired, %zu ended\n", rounds, Round::total_fired,
         Round::total_ended);
  EXPECT_GT(Round::total_fired, 0u);
  EXPECT_GT(Round::total_ended, 0u);
}

}  // namespace

// The monitor's, see CMakeLists.txt: in this storm its seconds pass at once.
extern "C" unsigned __wrap_sleep(unsigned seconds) {
  if (!g_fast_ticks) return __real_sleep(seconds);
  sched_yield();
  return 0;
}
