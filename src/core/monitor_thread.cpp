#include "core/monitor_thread.h"

#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

#include "base/bounds_checked.h"
#include "core/fork_child.h"

QuorvelWakeUp g_wake_up;

namespace {

// Fixed from outside. A few, so that work with short gaps does not wake the monitor each time.
constexpr uint32_t kQuietTicksBeforeWait = 3;

std::atomic<bool> g_vendor{false};

// A sleep that a signal ends with the whole second left is repeated, once.
void SleepOneTick() {
  if (sleep(1) == 1) sleep(1);
}

// What the monitor thread blocks: every signal, so that none meant for the host process is handled
// here, interrupts a tick, or ends the process because this thread wrote into a pipe without a
// reader or beyond the file size limit. Not blocked: the signals that a fault of the thread itself
// raises, and those that the C library keeps for itself, through which setuid and its like reach
// all threads.
constexpr uint64_t MonitorSignalMask() {
  constexpr int kNotBlocked[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGSYS,
                                 // of glibc: cancellation and setuid; of bionic: its timers and
                                 // backtraces
                                 32, 33};
  uint64_t mask = ~uint64_t{0};
  for (const int number : kNotBlocked) mask &= ~(uint64_t{1} << (number - 1));
  return mask;
}

// In the kernel's form: a sigset_t of the 32-bit platform has no space for signals above 32.
void SetSignalMask(const uint64_t* mask, uint64_t* old) {
  syscall(SYS_rt_sigprocmask, SIG_SETMASK, mask, old, sizeof(*mask));
}

QuorvelTimeoutInfo CopyOf(const QuorvelNode& node) {
  return {node.id, node.callback, node.tid, node.name, node.start, node.arg, node.flags};
}

}  // namespace

bool QuorvelCreateMonitor() {
  // The new thread inherits the mask, so it holds from the thread's first instruction on.
  constexpr uint64_t mask = MonitorSignalMask();
  uint64_t callers_mask = 0;
  SetSignalMask(&mask, &callers_mask);
  pthread_t thread;
  const int error = pthread_create(&thread, nullptr, QuorvelThreadHandle, nullptr);
  SetSignalMask(&callers_mask, nullptr);
  if (error == 0) QuorvelNoteMonitor();
  return error == 0;
}

void* QuorvelThreadHandle(void*) {
  pthread_setname_np(pthread_self(), "quorvel");
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
}
