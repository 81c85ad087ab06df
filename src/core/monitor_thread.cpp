#include "core/monitor_thread.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>

#include "base/bounds_checked.h"

QuorvelWakeUp g_wake_up;

namespace {

constexpr uint32_t kQuietTicksBeforeWait = 3;

std::atomic<bool> g_vendor{false};

// A sleep that a signal cuts short is made up once; a tick never takes more than two.
void SleepOneTick() {
  if (sleep(1) == 1) sleep(1);
}

// A write beyond the process's limit is to fail, as on a full disk; it would end the process.
void FailAtTheFileSizeLimit() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGXFSZ);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

QuorvelTimeoutInfo CopyOf(const QuorvelNode& node) {
  return {node.id, node.callback, node.tid, node.name, node.start, node.arg, node.flags};
}

}  // namespace

void* QuorvelThreadHandle(void*) {
  pthread_setname_np(pthread_self(), "quorvel");
  FailAtTheFileSizeLimit();
  QuorvelMonitor monitor;
  for (;;) {
    SleepOneTick();
    if (QuorvelMonitorPass(&monitor)) QuorvelWaitForStart(&monitor);
  }
}

bool QuorvelMonitorPass(QuorvelMonitor* monitor) {
  QuorvelCollectExpired(monitor);
  for (int32_t i = 0; i < monitor->count; ++i) {
    QuorvelTimeoutResponse(monitor->batch[i], g_vendor.load(std::memory_order_relaxed));
  }
  return QuorvelCountIdleTick(monitor);
}

void QuorvelCollectExpired(QuorvelMonitor* monitor) {
  memset_s(monitor->batch, sizeof(monitor->batch), 0, sizeof(monitor->batch));
  monitor->count = 0;
  QuorvelMutexLock lock(&g_registry.lock);
  while (QuorvelNode* node = QuorvelFirstExpired()) {
    QuorvelUnlinkNode(node);
    monitor->batch[monitor->count++] = CopyOf(*node);
    QuorvelReleaseNode(node);
    QuorvelCountEnded();
  }
  QuorvelAdvanceCursor();
}

bool QuorvelCountIdleTick(QuorvelMonitor* monitor) {
  const uint32_t started = QuorvelStartedCount();
  const bool quiet = started == monitor->started_snapshot && started == QuorvelEndedCount();
  monitor->idle_ticks = quiet ? monitor->idle_ticks + 1 : 0;
  monitor->started_snapshot = started;
  return monitor->idle_ticks >= kQuietTicksBeforeWait;
}

void QuorvelWaitForStart(QuorvelMonitor* monitor) {
  monitor->idle_ticks = 0;
  QuorvelMutexLock lock(&g_wake_up.lock);
  if (QuorvelStartedCount() != monitor->started_snapshot) return;
  g_wake_up.waiting = 1;
  g_wake_up.condition.Wait(&g_wake_up.lock);
  g_wake_up.waiting = 0;
}

void QuorvelWakeMonitor() {
  QuorvelMutexLock lock(&g_wake_up.lock);
  if (g_wake_up.waiting != 0) g_wake_up.condition.Signal();
}

void QuorvelSetVendor(bool is_vendor) {
  g_vendor.store(is_vendor, std::memory_order_relaxed);
}

// No other thread exists that could touch what the lock guards.
void QuorvelResetMonitorInChild() QUORVEL_NO_THREAD_SAFETY_ANALYSIS {
  g_wake_up.lock.ResetInChild();
  g_wake_up.condition.ResetInChild();
  g_wake_up.waiting = 0;
  QuorvelResetResponseAfterFork();
}
