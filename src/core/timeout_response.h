// The response to one expired watch: announcement, rate limit, incident log, callback, stacks,
// hang event, and the end of the process where the watch asks for it.
#ifndef QUORVEL_CORE_TIMEOUT_RESPONSE_H_
#define QUORVEL_CORE_TIMEOUT_RESPONSE_H_

#include <quorvel/quorvel.h>

#include <cstdint>

// The monitor's copy of an expired watch, whose node is free again already.
struct QuorvelTimeoutInfo {
  uint32_t id;
  QuorvelCallback callback;
  int32_t tid;
  const char* name;
  int64_t start;  // wall-clock seconds
  void* arg;
  uint32_t flags;
};

// Runs the whole response, the client's callback included, for as long as that takes. May end the
// process. A failure of a step is logged and stops no other step. Does not return in a child that
// the callback forked: there it ends the thread, and the child if that is its only one. Monitor
// thread only, with no lock of the core held.
void QuorvelTimeoutResponse(const QuorvelTimeoutInfo& info, bool is_vendor);

// In the child of a fork: sets the rate limit's count back to 0.
void QuorvelResetResponseInChild();

#endif  // QUORVEL_CORE_TIMEOUT_RESPONSE_H_
