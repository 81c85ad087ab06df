// The monitor thread: ticks once a second, collects the watches in the slot under the cursor and
// runs the timeout response for each. With nothing armed for three ticks it waits for a start.
//
// Idle and wake-up, so that no start is ever lost:
//
//     start call                              monitor, after three quiet ticks
//     ----------                              --------------------------------
//     link the watch, under the registry lock
//     started + 1                             lock the wake lock
//     lock the wake lock                      started as recorded at the last tick?
//     waiting? signal the wake condition        no:  unlock, tick on
//     unlock                                    yes: waiting = 1, wait, waiting = 0, unlock,
//                                                    tick on
//
// A start that counts before the comparison keeps the monitor ticking. One that counts after it
// locks the wake lock after the monitor has unlocked it for the wait: it finds the flag set and
// signals. A wait that ends by itself costs three ticks. The registry lock and the wake lock are
// never held together.
#ifndef QUORVEL_CORE_MONITOR_THREAD_H_
#define QUORVEL_CORE_MONITOR_THREAD_H_

#include <cstdint>

#include "base/mutex.h"
#include "core/timeout_response.h"
#include "core/watch_registry.h"

// Where an idle monitor waits for a start.
struct QuorvelWakeUp {
  alignas(kCacheLine) QuorvelMutex lock;
  QuorvelCondition condition;
  int32_t waiting QUORVEL_GUARDED_BY(lock) = 0;  // not 0 while the monitor waits
};
extern QuorvelWakeUp g_wake_up;

// What the monitor thread owns; no other thread touches it.
struct QuorvelMonitor {
  QuorvelTimeoutInfo batch[kPoolSize];  // the watches that expired in this tick, in link order
  int32_t count = 0;
  uint32_t idle_ticks = 0;        // consecutive quiet ticks
  uint32_t started_snapshot = 0;  // the started counter at the end of the previous tick
};

// Creates the monitor thread. False when the C library cannot. The thread runs with every signal
// blocked but those that its own faults raise and those that the C library keeps for itself.
bool QuorvelCreateMonitor();

// The thread's body. Never returns; ignores its argument.
void* QuorvelThreadHandle(void* unused);

// One pass of the loop but for its sleep and its wait: empties the slot under the cursor into the
// batch, moves the cursor on, runs the responses. Returns true when the monitor has been quiet for
// long enough to wait. Monitor thread only.
bool QuorvelMonitorPass(QuorvelMonitor* monitor);

// The steps of a pass.
void QuorvelCollectExpired(QuorvelMonitor* monitor);
bool QuorvelCountIdleTick(QuorvelMonitor* monitor);

// Waits for the next start, unless one has come since the last tick. Monitor thread only.
void QuorvelWaitForStart(QuorvelMonitor* monitor);

// Wakes the monitor if it waits. Any thread, after QuorvelCountStarted, with no lock held.
void QuorvelWakeMonitor();

// Whether the executable lies under /vendor, for the log directory and the recovery properties.
void QuorvelSetVendor(bool is_vendor);

// In the child of a fork: as if no monitor had ever run.
void QuorvelResetMonitorInChild();

#endif  // QUORVEL_CORE_MONITOR_THREAD_H_
