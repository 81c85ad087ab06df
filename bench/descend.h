// A thread that waits deep in calls, for benchmarks of stacks.
#ifndef QUORVEL_BENCH_DESCEND_H_
#define QUORVEL_BENCH_DESCEND_H_

#include <unistd.h>

#include <atomic>

// The threads that have arrived.
inline std::atomic<int> g_ready{0};

// Calls itself kDepth deep, and waits there for ever.
template <int kDepth>
__attribute__((noinline)) void Descend() {
  if constexpr (kDepth > 1) {
    Descend<kDepth - 1>();
  } else {
    ++g_ready;
    for (;;) pause();
  }
  __asm__ volatile("");  // no tail call
}

#endif  // QUORVEL_BENCH_DESCEND_H_
