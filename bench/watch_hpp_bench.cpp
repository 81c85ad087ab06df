// What the C++ headers add to a start and an end: nothing for a watch without a callable.

#include <benchmark/benchmark.h>
#include <quorvel/durations.hpp>
#include <quorvel/watch.hpp>

#include <chrono>

namespace {

constexpr std::chrono::seconds kTimeout{10};

template <class Bracket>
void Run(benchmark::State& state, Bracket bracket) {
  bool ok = true;
  for (auto _ : state) ok &= bracket();
  if (!ok) state.SkipWithError("a start was refused");
}

void Calls(benchmark::State& state) {
  Run(state, [] {
    const uint32_t id = __quorvel_start_ex("work", static_cast<int32_t>(kTimeout.count()), nullptr,
                                           nullptr, QUORVEL_FLAG_LOG);
    quorvel_end(id);
    return id != QUORVEL_INVALID_ID;
  });
}

void Plain(benchmark::State& state) {
  Run(state, [] {
    const quorvel::Watch watch("work", kTimeout, quorvel::kLog);
    return watch.armed();
  });
}

void Callable(benchmark::State& state) {
  int hangs = 0;
  Run(state, [&hangs] {
    const quorvel::Watch watch(
        "work", kTimeout, [&hangs] { ++hangs; }, quorvel::kLog);
    return watch.armed();
  });
}

void Measured(benchmark::State& state) {
  Run(state, [] {
    const quorvel::MeasuredWatch watch("work", kTimeout, quorvel::kLog);
    return watch.watch().armed();
  });
}

}  // namespace

int main(int argc, char** argv) {
  quorvel_init();
  benchmark::RegisterBenchmark("c_calls", Calls);
  benchmark::RegisterBenchmark("watch", Plain);
  benchmark::RegisterBenchmark("watch_with_callable", Callable);
  benchmark::RegisterBenchmark("measured_watch", Measured);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
