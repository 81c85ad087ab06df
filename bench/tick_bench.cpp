// What one tick of the monitor costs, whether it allocates, and what a client's start and end cost
// while slots are emptied under them. Linked with the library's internal functions.

#include <benchmark/benchmark.h>
#include <quorvel/quorvel.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <thread>
#include <vector>

#include "core/monitor_thread.h"
#include "core/watch_registry.h"

namespace {

std::atomic<long> g_allocations{0};

}  // namespace

extern "C" {

// Every allocation of the process comes through these, those of the libraries too.
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void* malloc(size_t size) {
  ++g_allocations;
  return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
  ++g_allocations;
  return __libc_calloc(count, size);
}
void* realloc(void* memory, size_t size) {
  ++g_allocations;
  return __libc_realloc(memory, size);
}

// The library's monitor never gets to its first tick (--wrap): all ticks here are the bench's.
unsigned __wrap_sleep(unsigned seconds);
unsigned __wrap_sleep(unsigned) {
  for (;;) pause();
}

}  // extern "C"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kCacheBytes = 64 << 20;
constexpr int kTicks = 25;
constexpr int kBatches = 500;

QuorvelMonitor g_monitor;

// Arms so many watches in the slot that the next tick empties.
bool FillSlot(int watches) {
  QuorvelMutexLock lock(&g_registry.lock);
  for (int i = 0; i < watches; ++i) {
    QuorvelNode* node = QuorvelGetFreeNode();
    if (node == nullptr) return false;
    QuorvelInsertWheel(node, 0);
    QuorvelCountStarted();
  }
  return true;
}

// Displaces what the tick works on, as a second of other work does.
void ChillCaches() {
  static std::vector<char> block(kCacheBytes);
  for (size_t i = 0; i < block.size(); i += 64) ++block[i];
  benchmark::ClobberMemory();
}

// All of a tick but its sleep and the responses. The argument: watches in the slot.
void Tick(benchmark::State& state) {
  const int watches = static_cast<int>(state.range(0));
  long allocations = 0;
  for (auto _ : state) {
    if (!FillSlot(watches)) state.SkipWithError("the pool is not empty");
    ChillCaches();
    const long before = g_allocations;
    const Clock::time_point start = Clock::now();
    QuorvelCollectExpired(&g_monitor);
    benchmark::DoNotOptimize(QuorvelCountIdleTick(&g_monitor));
    const std::chrono::duration<double> taken = Clock::now() - start;
    allocations += g_allocations - before;
    state.SetIterationTime(taken.count());
    if (g_monitor.count != watches) state.SkipWithError("the tick missed watches");
  }
  state.counters["allocations"] = static_cast<double>(allocations);
}

// Pairs of start and end, in batches of about a millisecond. The argument: watches in the slot that
// a second thread empties at some moment of each batch, as the monitor does once a second; with the
// client's own all 128 are armed. With 0 nothing is emptied.
void StartEnd(benchmark::State& state) {
  constexpr int kPairs = 20000;
  const int watches = static_cast<int>(state.range(0));
  std::atomic<bool> full{false}, stop{false};
  std::thread monitor([&] {
    for (; !stop; usleep(300)) {
      if (!full) continue;
      QuorvelCollectExpired(&g_monitor);
      full = false;
    }
  });
  for (auto _ : state) {
    if (!FillSlot(watches)) state.SkipWithError("a watch was refused");
    full = watches > 0;
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < kPairs; ++i) {
      quorvel_end(__quorvel_start_ex("work", 10, nullptr, nullptr, QUORVEL_FLAG_LOG));
    }
    const std::chrono::duration<double> taken = Clock::now() - start;
    state.SetIterationTime(taken.count() / kPairs);
    while (full) usleep(100);
  }
  stop = true;
  monitor.join();
}

}  // namespace

int main(int argc, char** argv) {
  quorvel_init();
  if (g_allocations == 0) return 1;  // the thread's stack alone took some: nothing is counted
  benchmark::RegisterBenchmark("tick", Tick)
      ->Arg(0)
      ->Arg(kPoolSize)
      ->UseManualTime()
      ->Iterations(kTicks);
  benchmark::RegisterBenchmark("start_end", StartEnd)
      ->Arg(0)
      ->Arg(kPoolSize - 1)
      ->UseManualTime()
      ->Iterations(kBatches);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
