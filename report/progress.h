// A progress bar on stderr: only on a terminal, and only for work of more than a second.
#pragma once

#include <chrono>
#include <cstdint>

namespace report {

class Progress {
 public:
  // total: the bytes of all work.
  explicit Progress(uint64_t total);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Shows that so many bytes are done.
  void Show(uint64_t done);

  // Removes the bar, so that a message can be written in its place.
  void Clear();

 private:
  using Clock = std::chrono::steady_clock;
  uint64_t total_;
  bool terminal_;
  bool shown_ = false;
  Clock::time_point next_;
};

}  // namespace report
