#include "core/fork_child.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>

namespace {

std::atomic<void (*)()> g_reset{nullptr};

// The process that the library's state belongs to; 0 before the first quorvel_init of all.
std::atomic<pid_t> g_owner{0};

// The mark: set before every fork, cleared by the reset in its child. It tells a child from its
// parent even where both have the same id, as the first processes of two pid namespaces do. In the
// parent it stays set and means nothing.
std::atomic<bool> g_child_needs_reset{false};

// The process that created the monitor thread; 0 before that.
std::atomic<pid_t> g_monitors_process{0};

// How often the state has been reset for a new process.
std::atomic<uint32_t> g_resets{0};

void ResetForThisProcess() {
  g_resets.fetch_add(1);
  g_owner.store(getpid());
  g_child_needs_reset.store(false);
  g_monitors_process.store(0);
  g_reset.load()();
}

void BeforeFork() {
  g_child_needs_reset.store(true);
}

void AfterForkInChild() {
  if (g_child_needs_reset.load() || g_owner.load() != getpid()) ResetForThisProcess();
}

void RegisterHandlers() {
  pthread_atfork(BeforeFork, nullptr, AfterForkInChild);
}

}  // namespace

QuorvelProcess QuorvelCurrentProcess() {
  return {getpid(), g_resets.load()};
}

void QuorvelNoteMonitor() {
  g_monitors_process.store(getpid());
}

bool QuorvelHasMonitor() {
  return g_monitors_process.load() == getpid();
}

void QuorvelEnterProcess(void (*reset)()) {
  static pthread_once_t once = PTHREAD_ONCE_INIT;
  g_reset.store(reset);
  pthread_once(&once, RegisterHandlers);
  pid_t owner = 0;
  const pid_t pid = getpid();
  if (!g_owner.compare_exchange_strong(owner, pid) && owner != pid) ResetForThisProcess();
}
