#include "unwind/unwindstack_wrapper.h"

#include <android/log.h>
#include <errno.h>
#include <signal.h>
#include <string.h>
#include <unwindstack/Maps.h>
#include <unwindstack/Memory.h>
#include <unwindstack/RegsGetLocal.h>

#include <atomic>
#include <memory>

#include "base/bounds_checked.h"
#include "unwind/unwind_log.h"
#include "unwind/unwind_signal.h"
#include "unwind/unwindstack_wrapper_thread.h"

namespace {

using Entry = unwindstack_wrapper_thread;

constexpr char kNoRegisters[] = "Fail to get registers";
constexpr char kNoMaps[] = "Fail to parse maps";
constexpr char kNoThread[] = "target thread does not exist";
constexpr char kNoAnswer[] = "Timed out waiting for signal handler to get ucontext data";
constexpr size_t kLongestReason = unwindstack_wrapper::kLongestReason;
static_assert(sizeof(kNoRegisters) <= kLongestReason && sizeof(kNoMaps) <= kLongestReason &&
              sizeof(kNoThread) <= kLongestReason && sizeof(kNoAnswer) <= kLongestReason);

// Async-signal context: it has interrupted the target thread anywhere, inside the allocator, the
// loader or stdio perhaps, and calls nothing that could wait for any of them.
void unwindstack_wrapper_signal_handler(int, siginfo_t*, void* context) {
  const int saved_errno = errno;
  Entry* entry = Entry::get(getpid(), gettid(), false);
  if (entry == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, kUnwindLogTag, "%s: pid %d, tid %d entry not found\n",
                        __func__, getpid(), gettid());
    errno = saved_errno;
    return;
  }
  entry->copy_context(context);
  entry->wake();
  if (entry->wait(kRendezvousStackRead)) {
    entry->wake();
  } else {
    __android_log_print(ANDROID_LOG_WARN, kUnwindLogTag,
                        "%s: Timed out waiting for unwind thread to indicate it completed.",
                        __func__);
  }
  errno = saved_errno;
}

// The object's user may have moved away what its constructor reserved.
void ReserveResults(unwindstack_wrapper* self) {
  self->frames.reserve(unwindstack_wrapper::kMaxFrames);
  self->error.reserve(kLongestReason);
}

Entry* LockEntry(int pid, int tid) {
  Entry* entry = Entry::get(pid, tid, true);
  if (entry == nullptr) return nullptr;
  pthread_mutex_lock(&entry->entry_mutex_);
  entry->wait_value_ = kRendezvousIdle;
  return entry;
}

// The host's action, for a child that another thread forks while the handler is in its place. It is
// read before the handler is installed, so that a fork in between finds it, too.
struct sigaction g_hosts_action;
std::atomic<bool> g_hosts_action_replaced{false};

bool InstallHandler(struct sigaction* old_action) {
  struct sigaction action;
  memset_s(&action, sizeof(action), 0, sizeof(action));
  memset_s(old_action, sizeof(*old_action), 0, sizeof(*old_action));
  g_hosts_action_replaced = sigaction(kUnwindSignal, nullptr, &g_hosts_action) == 0;
  action.sa_sigaction = unwindstack_wrapper_signal_handler;
  action.sa_flags = SA_RESTART | SA_ONSTACK | SA_SIGINFO;
  sigemptyset(&action.sa_mask);
  const bool installed = sigaction(kUnwindSignal, &action, old_action) == 0;
  if (!installed) g_hosts_action_replaced = false;
  return installed;
}

void RestoreAction(const struct sigaction& old_action) {
  sigaction(kUnwindSignal, &old_action, nullptr);
  g_hosts_action_replaced = false;
}

// For a handler that never came: the signal may still be on its way, and under the default
// disposition it would end the process.
void RestoreActionOrIgnore(const struct sigaction& old_action) {
  if (old_action.sa_handler != SIG_DFL) {
    RestoreAction(old_action);
  } else {
    signal(kUnwindSignal, SIG_IGN);
    g_hosts_action_replaced = false;
  }
}

const char* ReasonOfSilence(int pid, int tid, const char* step) {
  if (tgkill(pid, tid, 0) != 0 && errno == ESRCH) return kNoThread;
  __android_log_print(ANDROID_LOG_ERROR, kUnwindLogTag,
                      "%s: Timed out waiting for signal handler to get ucontext data. %s", step,
                      strerror(errno));
  return kNoAnswer;
}

// The registers are captured where this is inlined, which must be a frame that outlives the unwind.
inline __attribute__((always_inline)) bool UnwindInPlace(unwindstack_wrapper* self) {
  const std::unique_ptr<unwindstack::Regs> regs(unwindstack::Regs::CreateFromLocal());
  if (regs != nullptr) unwindstack::RegsGetLocal(regs.get());
  return self->_unwind_ucontext_with_reg(regs.get());
}

}  // namespace

QuorvelMutex unwind_mutex;

bool unwindstack_wrapper::unwind(int tid, ucontext* uc, int frame_limit) {
  if (frame_limit < kMinFrames || frame_limit > kMaxFrames) return false;
  max_frames = frame_limit;
  const QuorvelMutexLock lock(&unwind_mutex);
  if (uc != nullptr) return _unwind_ucontext_locked(uc);
  if (tid != gettid()) return _unwind_locked(tid);
  return UnwindInPlace(this);
}

bool unwindstack_wrapper::_unwind_ucontext_current() {
  return UnwindInPlace(this);
}

bool unwindstack_wrapper::_unwind_ucontext_locked(ucontext* uc) {
  const std::unique_ptr<unwindstack::Regs> regs(
      unwindstack::Regs::CreateFromUcontext(unwindstack::Regs::CurrentArch(), uc));
  return _unwind_ucontext_with_reg(regs.get());
}

bool unwindstack_wrapper::_unwind_ucontext_with_reg(unwindstack::Regs* regs) {
  unwindstack::LocalMaps maps;
  const std::shared_ptr<unwindstack::Memory> memory = unwindstack::Memory::CreateProcessMemory(pid);
  if (regs == nullptr) {
    error = kNoRegisters;
    return false;
  }
  const unwindstack::ArchEnum arch = regs->Arch();
  is_32bit = arch == unwindstack::ARCH_ARM || arch == unwindstack::ARCH_X86 ||
             arch == unwindstack::ARCH_MIPS;
  if (!maps.Parse()) {
    error = kNoMaps;
    return false;
  }
  unwindstack::Unwinder unwinder(static_cast<size_t>(max_frames), &maps, regs, memory);
  unwinder.Unwind();
  frames = unwinder.frames();
  num_frames = frames.size();
  return true;
}

bool unwindstack_wrapper::_unwind_locked(int tid) {
  ReserveResults(this);
  Entry* entry = LockEntry(pid, tid);
  if (entry == nullptr) return false;
  bool unwound = false;
  struct sigaction old_action;
  if (!InstallHandler(&old_action)) {
    __android_log_print(ANDROID_LOG_ERROR, kUnwindLogTag, "%s: sigaction failed: %s", __func__,
                        strerror(errno));
  } else if (tgkill(pid, tid, kUnwindSignal) != 0) {
    __android_log_print(ANDROID_LOG_ERROR, kUnwindLogTag, "%s: cannot send signal %d to %d, %s",
                        __func__, kUnwindSignal, tid, strerror(errno));
    RestoreAction(old_action);
  } else if (entry->wait(kRendezvousContextSaved)) {
    RestoreAction(old_action);
    unwound = _unwind_ucontext_locked(&entry->ucontext_);
    entry->wake();
    if (!entry->wait(kRendezvousLeaving)) {
      __android_log_print(ANDROID_LOG_ERROR, kUnwindLogTag,
                          "%s: Timed out waiting for signal handler to indicate it finished.",
                          __func__);
    }
  } else {
    RestoreActionOrIgnore(old_action);
    error = ReasonOfSilence(pid, tid, __func__);
  }
  Entry::remove(entry);
  return unwound;
}

void unwindstack_wrapper_reset_in_child() {
  unwind_mutex.ResetInChild();
  Entry::list_mutex_ = PTHREAD_MUTEX_INITIALIZER;
  Entry::list_ = nullptr;
  if (g_hosts_action_replaced.exchange(false)) sigaction(kUnwindSignal, &g_hosts_action, nullptr);
}
