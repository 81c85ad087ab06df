// How near was it? A watch that also records how long its work took, to choose timeouts by.
//
//     {
//       quorvel::MeasuredWatch watch("flush-db", 10s, quorvel::kLog);
//       FlushDb();
//     }
//     quorvel::PrintDurations(stderr);
//
//     name      timeout      count    median      99 %   longest   share
//     flush-db     10 s      48211   1.02 ms    1.80 s    6.31 s    63 %  <--
//     reload        5 s         12    200 ms    410 ms    410 ms     8 %
//
// A duration is what one deadline had to cover: from the start or an update to the next update or
// the end. Work that still runs is not in the table. Time spent in suspend does not count, as it
// does not bring a deadline nearer.
//
// Nothing of this is in the library: the table is a variable of the program or shared object that
// includes this header (of each one whose symbols are hidden). It has a fixed number of rows, one a
// name and timeout; names are told apart by their first 47 characters. Recording allocates nothing,
// locks nothing and costs some tens of nanoseconds beyond the watch. Nothing here throws.
#ifndef QUORVEL_DURATIONS_HPP_
#define QUORVEL_DURATIONS_HPP_

#include <time.h>
#include <quorvel/watch.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <utility>

namespace quorvel {
namespace detail {

inline constexpr std::size_t kDurationRows = 64;
inline constexpr std::size_t kDurationNameBytes = 48;

// Durations are counted in buckets: eight for each doubling from 1024 ns on, so that a quantile is
// too large by an eighth at most; what is shorter falls into the first, the rest into the last.
inline constexpr unsigned kShortestBits = 10;
inline constexpr unsigned kStepBits = 3;
inline constexpr std::uint64_t kSteps = std::uint64_t{1} << kStepBits;
inline constexpr unsigned kDoublings = 28;  // to 274 seconds
inline constexpr std::size_t kDurationBuckets = 1 + kDoublings * kSteps;

constexpr std::size_t BucketOf(std::uint64_t ns) noexcept {
  if (ns >> kShortestBits == 0) return 0;
  const auto bits = static_cast<unsigned>(63 - __builtin_clzll(ns));
  const std::uint64_t step = (ns >> (bits - kStepBits)) - kSteps;
  return std::min(static_cast<std::size_t>(1 + (bits - kShortestBits) * kSteps + step),
                  kDurationBuckets - 1);
}

// What every duration in the bucket is shorter than, but for those in the last.
constexpr std::uint64_t BucketEnd(std::size_t bucket) noexcept {
  if (bucket == 0) return std::uint64_t{1} << kShortestBits;
  const std::uint64_t doubling = (bucket - 1) / kSteps, step = (bucket - 1) % kSteps;
  return (kSteps + step + 1) << (doubling + kShortestBits - kStepBits);
}

struct DurationRow {
  std::atomic<std::uint64_t> key;  // of the name and the timeout; 0: the row is free
  std::atomic<bool> named;         // the two members below are set
  char name[kDurationNameBytes];
  std::int64_t timeout;  // seconds
  std::atomic<std::uint64_t> longest;
  std::atomic<std::uint64_t> counts[kDurationBuckets];

  void Record(std::uint64_t ns) noexcept {
    counts[BucketOf(ns)].fetch_add(1, std::memory_order_relaxed);
    std::uint64_t before = longest.load(std::memory_order_relaxed);
    while (before < ns && !longest.compare_exchange_weak(before, ns, std::memory_order_relaxed)) {
    }
  }
};

struct DurationTable {
  DurationRow rows[kDurationRows];
  std::atomic<std::uint64_t> dropped;  // starts that found no row
};

inline DurationTable g_durations = {};

// Never 0. Two names or timeouts that differ have the same key once in 2^64 times, and would then
// share a row.
inline std::uint64_t KeyOf(const char* name, std::size_t length, std::int64_t timeout) noexcept {
  constexpr std::uint64_t kOddFactor = 0x9E3779B97F4A7C15;  // 2^64 over the golden ratio
  std::uint64_t key = static_cast<std::uint64_t>(timeout) * kOddFactor + length;
  while (length > 0) {
    std::uint64_t word = 0;
    const std::size_t bytes = std::min(length, sizeof(word));
    std::memcpy(&word, name, bytes);
    key = (key ^ word) * kOddFactor;
    key ^= key >> 32;
    name += bytes;
    length -= bytes;
  }
  return key == 0 ? 1 : key;
}

// The row of this name and timeout, a new one for the first of them; null when all are used up.
inline DurationRow* FindRow(const char* name, std::chrono::seconds timeout) noexcept {
  if (name == nullptr) name = "(no name)";
  const std::size_t length = std::min(std::strlen(name), kDurationNameBytes - 1);
  const std::uint64_t key = KeyOf(name, length, timeout.count());
  for (std::size_t i = 0; i < kDurationRows; ++i) {
    DurationRow& row = g_durations.rows[(key + i) % kDurationRows];
    std::uint64_t present = row.key.load(std::memory_order_relaxed);
    if (present == 0 && row.key.compare_exchange_strong(present, key, std::memory_order_relaxed)) {
      std::memcpy(row.name, name, length);
      row.timeout = timeout.count();
      row.named.store(true, std::memory_order_release);
      return &row;
    }
    if (present == key) return &row;
  }
  g_durations.dropped.fetch_add(1, std::memory_order_relaxed);
  return nullptr;
}

// On the clock that the monitor's ticks follow.
inline std::uint64_t MonotonicNanoseconds() noexcept {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000u +
         static_cast<std::uint64_t>(now.tv_nsec);
}

// What one row says at one moment.
struct DurationSummary {
  const DurationRow* row;
  std::uint64_t count, median, percentile99, longest;
  unsigned percent;  // the longest's share of the timeout
};

inline std::uint64_t QuantileOf(const std::uint64_t (&counts)[kDurationBuckets], std::uint64_t rank,
                                std::uint64_t longest) noexcept {
  std::uint64_t seen = 0;
  for (std::size_t bucket = 0; bucket < kDurationBuckets - 1; ++bucket) {
    seen += counts[bucket];
    if (seen >= rank) return std::min(BucketEnd(bucket), longest);
  }
  return longest;
}

inline DurationSummary Summarise(const DurationRow& row) noexcept {
  DurationSummary summary = {};
  std::uint64_t counts[kDurationBuckets];
  for (std::size_t i = 0; i < kDurationBuckets; ++i) {
    counts[i] = row.counts[i].load(std::memory_order_relaxed);
    summary.count += counts[i];
  }
  const std::uint64_t count = summary.count;
  summary.row = &row;
  summary.longest = row.longest.load(std::memory_order_relaxed);
  summary.median = QuantileOf(counts, count - count / 2, summary.longest);
  summary.percentile99 = QuantileOf(counts, count - count / 100, summary.longest);
  const auto timeout = static_cast<std::uint64_t>(row.timeout);
  summary.percent = static_cast<unsigned>(summary.longest / (timeout * 10'000'000u));
  return summary;
}

// Three digits and a unit, as "1.02 ms".
struct DurationText {
  explicit DurationText(std::uint64_t ns) noexcept {
    const char* const units[] = {"ns", "us", "ms", "s"};
    std::size_t unit = 0;
    auto value = static_cast<double>(ns);
    for (; value >= 999.5 && unit < 3; ++unit) value /= 1000;
    const int decimals = unit == 0 || value >= 99.95 ? 0 : value >= 9.995 ? 1 : 2;
    std::snprintf(text, sizeof(text), "%.*f %s", decimals, value, units[unit]);
  }
  char text[32];
};

}  // namespace detail

// A Watch that records its durations. The same rules hold for arguments, threads and the end.
class [[nodiscard]] MeasuredWatch {
 public:
  // The arguments of any of Watch's constructors. The work is measured also when the start was
  // refused by the library, but not with a timeout outside 1 to 60 seconds.
  template <class... Rest>
  [[nodiscard]] MeasuredWatch(const char* name, std::chrono::seconds timeout,
                              Rest&&... rest) noexcept
      : watch_(name, timeout, std::forward<Rest>(rest)...), name_(name), timeout_(timeout) {
    if (watch_.state() == Watch::State::kRefusedTimeout) return;
    row_ = detail::FindRow(name_, timeout_);
    since_ = detail::MonotonicNanoseconds();
  }

  ~MeasuredWatch() { End(); }

  MeasuredWatch(MeasuredWatch&& other) noexcept
      : watch_(std::move(other.watch_)),
        name_(other.name_),
        timeout_(other.timeout_),
        row_(std::exchange(other.row_, nullptr)),
        since_(other.since_) {}

  MeasuredWatch& operator=(MeasuredWatch&& other) noexcept {
    if (this == &other) return *this;
    End();
    watch_ = std::move(other.watch_);
    name_ = other.name_;
    timeout_ = other.timeout_;
    row_ = std::exchange(other.row_, nullptr);
    since_ = other.since_;
    return *this;
  }

  MeasuredWatch(const MeasuredWatch&) = delete;
  MeasuredWatch& operator=(const MeasuredWatch&) = delete;

  // As Watch::Update. The time until now was under the old deadline and is recorded; what follows
  // is under the new one.
  bool Update(std::chrono::seconds timeout) noexcept {
    if (!watch_.Update(timeout)) return false;
    const std::uint64_t now = detail::MonotonicNanoseconds();
    if (row_ != nullptr) row_->Record(now - since_);
    if (timeout != timeout_) {
      timeout_ = timeout;
      row_ = detail::FindRow(name_, timeout_);
    }
    since_ = now;
    return true;
  }

  // As Watch::End; what a running callable makes it wait is not in the duration.
  Watch::State End() noexcept {
    if (detail::DurationRow* const row = std::exchange(row_, nullptr)) {
      row->Record(detail::MonotonicNanoseconds() - since_);
    }
    return watch_.End();
  }

  const Watch& watch() const noexcept { return watch_; }

 private:
  Watch watch_;
  const char* name_;
  std::chrono::seconds timeout_;
  detail::DurationRow* row_ = nullptr;  // null: not measured, or ended
  std::uint64_t since_ = 0;
};

inline constexpr unsigned kMarkedPercent = 50;

// Prints what has been recorded so far, the largest share of its timeout first; from 50 % on a row
// is marked. Any thread, at any time; others may go on recording. Allocates what stdio does.
inline void PrintDurations(std::FILE* out) noexcept {
  detail::DurationSummary rows[detail::kDurationRows];
  std::size_t count = 0;
  for (const detail::DurationRow& row : detail::g_durations.rows) {
    if (row.named.load(std::memory_order_acquire)) rows[count++] = detail::Summarise(row);
  }
  std::sort(rows, rows + count, [](const auto& a, const auto& b) { return a.percent > b.percent; });
  std::size_t width = sizeof("name");
  for (std::size_t i = 0; i < count; ++i) width = std::max(width, std::strlen(rows[i].row->name));
  const int name_width = static_cast<int>(width);
  std::fprintf(out, "%-*s %8s %10s %9s %9s %9s %7s\n", name_width, "name", "timeout", "count",
               "median", "99 %", "longest", "share");
  for (std::size_t i = 0; i < count; ++i) {
    const detail::DurationSummary& row = rows[i];
    std::fprintf(out, "%-*s %6lld s %10llu %9s %9s %9s %5u %%%s\n", name_width, row.row->name,
                 static_cast<long long>(row.row->timeout),
                 static_cast<unsigned long long>(row.count), detail::DurationText(row.median).text,
                 detail::DurationText(row.percentile99).text,
                 detail::DurationText(row.longest).text, row.percent,
                 row.percent >= kMarkedPercent ? "  <--" : "");
  }
  const std::uint64_t dropped = detail::g_durations.dropped.load(std::memory_order_relaxed);
  if (dropped != 0) {
    std::fprintf(out, "%llu watches are missing: the table has %zu rows\n",
                 static_cast<unsigned long long>(dropped), detail::kDurationRows);
  }
}

}  // namespace quorvel

#endif  // QUORVEL_DURATIONS_HPP_
