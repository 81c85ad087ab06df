// Where the machine's C library differs from the device's in threads. The link sends the library's
// calls of these names here (--wrap); the host process's own calls are not touched.

#include <errno.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

#include "fork_child.h"

extern "C" {

int __wrap_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex);
int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  const struct timespec* deadline);
int __wrap_pthread_cond_signal(pthread_cond_t* condition);
pid_t __wrap_gettid();
pid_t __wrap_getpid();
char* __wrap_strerror(int error);

}  // extern "C"

namespace {

// The process in which thread ids were last asked for, and the calling thread's id there. A child
// of a fork has another id, and so has its thread.
std::atomic<pid_t> g_pid{0};

struct ThreadId {
  pid_t tid;
  pid_t pid;  // g_pid as tid was asked for
};
__attribute__((tls_model("initial-exec"))) thread_local ThreadId t_id = {0, 0};

pid_t RealPid() {
  return static_cast<pid_t>(syscall(SYS_getpid));
}

// Resets all state of the layer that is wrong in the child of a fork.
void ResetHostLayerInChild() {
  t_id = {0, 0};
  g_pid.store(RealPid(), std::memory_order_relaxed);
  ForgetZoneLockInChild();
  ForgetDiscardedLinesInChild();
  unwindstack::StartWalksAnewInChild();
}

[[maybe_unused]] const int g_fork_handler = pthread_atfork(nullptr, nullptr, ResetHostLayerInChild);

// Condition variables of the layer's own, stored in the C library's. A wait of the C library's is a
// cancellation point, which a device does not have: a thread that is being cancelled would wait in
// the unwinder's handler for ever, for a signal that is blocked there. Deadlines are on the
// monotonic clock.
struct Condition {
  std::atomic<uint32_t> turn;
  std::atomic<uint32_t> sleepers;
};
static_assert(sizeof(Condition) <= sizeof(pthread_cond_t) &&
              std::atomic<uint32_t>::is_always_lock_free);

Condition* StateOf(pthread_cond_t* condition) {
  return reinterpret_cast<Condition*>(condition);
}

long NanosecondsSince(const struct timespec& start) {
  constexpr long kNanosPerSecond = 1'000'000'000;
  struct timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (now.tv_sec - start.tv_sec) * kNanosPerSecond + now.tv_nsec - start.tv_nsec;
}

// Whether the turn comes within the time that sleeping and being woken would take. The yields let
// the other side run where it waits for the same processor.
bool TurnComesSoon(const Condition& condition, uint32_t turn) {
  constexpr long kSoon = 150'000;  // nanoseconds
  struct timespec start = {};
  clock_gettime(CLOCK_MONOTONIC, &start);
  do {
    if (condition.turn.load(std::memory_order_acquire) != turn) return true;
    sched_yield();
  } while (NanosecondsSince(start) < kSoon);
  return false;
}

int WaitForTurn(pthread_cond_t* condition, pthread_mutex_t* mutex,
                const struct timespec* deadline) {
  const int saved_errno = errno;
  Condition* const state = StateOf(condition);
  const uint32_t turn = state->turn.load(std::memory_order_acquire);
  pthread_mutex_unlock(mutex);
  bool timed_out = false;
  // A wait without a deadline is the idle monitor's, which is in no hurry.
  if (deadline == nullptr || !TurnComesSoon(*state, turn)) {
    state->sleepers.fetch_add(1);
    const long result = syscall(SYS_futex, &state->turn, FUTEX_WAIT_BITSET_PRIVATE, turn, deadline,
                                nullptr, FUTEX_BITSET_MATCH_ANY);
    timed_out = result == -1 && errno == ETIMEDOUT;
    state->sleepers.fetch_sub(1);
  }
  pthread_mutex_lock(mutex);
  errno = saved_errno;
  return timed_out ? ETIMEDOUT : 0;
}

}  // namespace

int __wrap_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
  return WaitForTurn(condition, mutex, nullptr);
}

int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  const struct timespec* deadline) {
  return WaitForTurn(condition, mutex, deadline);
}

int __wrap_pthread_cond_signal(pthread_cond_t* condition) {
  const int saved_errno = errno;
  Condition* const state = StateOf(condition);
  state->turn.fetch_add(1);
  if (state->sleepers.load() != 0) syscall(SYS_futex, &state->turn, FUTEX_WAKE_PRIVATE, 1);
  errno = saved_errno;
  return 0;
}

pid_t __wrap_gettid() {
  const pid_t pid = g_pid.load(std::memory_order_relaxed);
  if (t_id.tid == 0 || t_id.pid != pid) t_id = {static_cast<pid_t>(syscall(SYS_gettid)), pid};
  return t_id.tid;
}

// Also how a child learns that it is one whose fork handlers have not run yet, or never will.
pid_t __wrap_getpid() {
  const pid_t pid = RealPid();
  g_pid.store(pid, std::memory_order_relaxed);
  return pid;
}

// The C library's locks a mutex for the translation; the device's does not.
char* __wrap_strerror(int error) {
  const char* text = strerrordesc_np(error);
  return const_cast<char*>(text != nullptr ? text : "Unknown error");
}

const char* getprogname() {
  return program_invocation_short_name;
}
