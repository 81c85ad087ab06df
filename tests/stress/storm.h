// What the storms share.
#ifndef QUORVEL_TESTS_STRESS_STORM_H_
#define QUORVEL_TESTS_STRESS_STORM_H_

#include <quorvel/quorvel.h>
#include <stdlib.h>

#include <string>

#define NOINLINE __attribute__((noinline))

constexpr uint32_t kStacks = QUORVEL_FLAG_LOG | QUORVEL_FLAG_BACKTRACE;

// QUORVEL_STRESS_SECONDS is for both storms together.
inline unsigned StormSeconds() {
  const char* const seconds = getenv("QUORVEL_STRESS_SECONDS");
  return static_cast<unsigned>(seconds != nullptr ? atoi(seconds) : 20) / 2;
}

// The one section of a thread's user stack in an incident's text, from its first line to the next
// empty one; empty if there is none or more than one.
inline std::string SectionOf(int tid, const std::string& text) {
  const std::string header = "\n\ntid = " + std::to_string(tid) + "\n  #00 ";
  const size_t at = text.find(header);
  if (at == std::string::npos || text.find(header, at + 1) != std::string::npos) return "";
  return text.substr(at, text.find("\n\n", at + 2) - at);
}

#endif  // QUORVEL_TESTS_STRESS_STORM_H_
