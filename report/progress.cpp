#include "progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>

namespace report {
namespace {
constexpr std::chrono::milliseconds kDelay(1000);
constexpr std::chrono::milliseconds kInterval(100);
constexpr uint64_t kCells = 40;
constexpr uint64_t kMegabyte = 1000 * 1000;
}  // namespace

Progress::Progress(uint64_t total)
    : total_(total), terminal_(isatty(STDERR_FILENO) == 1), next_(Clock::now() + kDelay) {}

Progress::~Progress() {
  Clear();
}

void Progress::Show(uint64_t done) {
  if (!terminal_ || Clock::now() < next_) return;
  next_ = Clock::now() + kInterval;
  shown_ = true;
  const uint64_t cells = total_ == 0 ? 0 : std::min(kCells, done * kCells / total_);
  std::cerr << fmt::format("\r[{:#<{}}{:.<{}}] {} MB", "", cells, "", kCells - cells,
                           done / kMegabyte)
            << std::flush;
}

void Progress::Clear() {
  if (shown_) std::cerr << "\r\x1b[K" << std::flush;
  shown_ = false;
}

}  // namespace report
