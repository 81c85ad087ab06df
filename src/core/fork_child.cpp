#include "core/fork_child.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>

namespace {

std::atomic<void (*)()> g_reset{nullptr};

// The process that the library's state belongs to; 0 before the first quorvel_init of all.
std::atomic<pid_t> g_owner{0};

// Forks under way. Not 0 in a child that was not reset yet.
std::atomic<int> g_forks{0};

void StartAnew() {
  g_owner.store(getpid());
  g_forks.store(0);
  g_reset.load()();
}

void BeforeFork() {
  g_forks.fetch_add(1);
}

// Handlers that were registered in the middle of a fork may run here without their prepare handler.
void AfterForkInParent() {
  int forks = g_forks.load();
  while (forks > 0 && !g_forks.compare_exchange_weak(forks, forks - 1)) {
  }
}

// The count tells a child from its parent even where both have the same id, as the first processes
// of two pid namespaces do.
void AfterForkInChild() {
  if (g_forks.load() != 0 || g_owner.load() != getpid()) StartAnew();
}

void RegisterHandlers() {
  pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild);
}

}  // namespace

void QuorvelEnterProcess(void (*reset)()) {
  static pthread_once_t once = PTHREAD_ONCE_INIT;
  g_reset.store(reset);
  pthread_once(&once, RegisterHandlers);
  pid_t owner = 0;
  const pid_t pid = getpid();
  if (!g_owner.compare_exchange_strong(owner, pid) && owner != pid) StartAnew();
}
