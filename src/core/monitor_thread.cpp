#include "core/monitor_thread.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>

#include "base/bounds_checked.h"

namespace {

constexpr uint32_t kQuietTicksBeforeWait = 3;

// Where an idle monitor sleeps. The lock is the condition's alone.
struct WakeCondition {
  pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  bool signalled = false;
};

WakeCondition g_wake;
std::atomic<bool> g_vendor{false};

struct WakeLock : QuorvelShortLockGuard {
  WakeLock() : QuorvelShortLockGuard(&g_registry.wake_lock) {}
};

void AwaitSignal() {
  pthread_mutex_lock(&g_wake.lock);
  while (!g_wake.signalled) pthread_cond_wait(&g_wake.condition, &g_wake.lock);
  g_wake.signalled = false;
  pthread_mutex_unlock(&g_wake.lock);
}

// One that comes after another has woken the monitor already stays, and ends its next wait at once:
// it ticks three times more.
void Signal() {
  pthread_mutex_lock(&g_wake.lock);
  g_wake.signalled = true;
  pthread_cond_signal(&g_wake.condition);
  pthread_mutex_unlock(&g_wake.lock);
}

// Sets the waiting flag, unless a start has come since the last tick.
bool BeginToWait(const QuorvelMonitor& monitor) {
  WakeLock lock;
  if (QuorvelStartedCount() != monitor.started_snapshot) return false;
  g_registry.waiting = 1;
  return true;
}

void EndToWait() {
  WakeLock lock;
  g_registry.waiting = 0;
}

bool MonitorWaits() {
  WakeLock lock;
  return g_registry.waiting != 0;
}

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
  RegistryLock lock(QuorvelShortLock::kMicroseconds);
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
  if (BeginToWait(*monitor)) {
    AwaitSignal();
    EndToWait();
  }
  monitor->idle_ticks = 0;
}

void QuorvelWakeMonitor() {
  if (MonitorWaits()) Signal();
}

void QuorvelSetVendor(bool is_vendor) {
  g_vendor.store(is_vendor, std::memory_order_relaxed);
}

void QuorvelResetMonitorAfterFork() {
  g_wake = WakeCondition();
  QuorvelResetResponseAfterFork();
}
