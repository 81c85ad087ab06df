// The monitor thread: ticks once a second, collects the watches in the slot under the cursor and
// runs the timeout response for each. With nothing armed for three ticks it waits for a start.
//
// Idle and wake-up, so that no start is ever lost:
//
//     start call                              monitor, after three quiet ticks
//     ----------                              --------------------------------
//     link the watch, under the registry lock
//     started + 1                             take the wake lock
//     take the wake lock                      started as recorded at the last tick?
//     waiting?                                  no:  let go, tick on
//     let go; signal if it was set              yes: waiting = 1, let go, wait for the signal
//                                                    waiting = 0 under the lock, tick on
//
// A start that counts before the comparison keeps the monitor ticking; one that counts after it
// finds the flag set and signals; the signal stays until the monitor has taken it. No two of the
// registry lock, the wake lock and that of the wake condition are ever held together.
#ifndef QUORVEL_CORE_MONITOR_THREAD_H_
#define QUORVEL_CORE_MONITOR_THREAD_H_

#include <cstdint>

#include "core/timeout_response.h"
#include "core/watch_registry.h"

// What the monitor thread owns; no other thread touches it.
struct QuorvelMonitor {
  QuorvelTimeoutInfo batch[kPoolSize];  // the watches that expired in this tick, in link order
  int32_t count = 0;
  uint32_t idle_ticks = 0;        // consecutive quiet ticks
  uint32_t started_snapshot = 0;  // the started counter at the end of the previous tick
};

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

// In the child of a fork: renews the wake condition and the state of the layers below.
void QuorvelResetMonitorAfterFork();

#endif  // QUORVEL_CORE_MONITOR_THREAD_H_
