// What the storms share.
#ifndef QUORVEL_TESTS_STRESS_STORM_H_
#define QUORVEL_TESTS_STRESS_STORM_H_

#include <stdlib.h>

// QUORVEL_STRESS_SECONDS is for both storms together.
inline unsigned StormSeconds() {
  const char* const seconds = getenv("QUORVEL_STRESS_SECONDS");
  return static_cast<unsigned>(seconds != nullptr ? atoi(seconds) : 20) / 2;
}

#endif  // QUORVEL_TESTS_STRESS_STORM_H_
