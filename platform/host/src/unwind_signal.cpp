// Signal 33, as the device has it: free for the library, its default action in place.
//
// This machine's C library keeps the signal to itself. Its sigaction and signal refuse it, and in a
// process with threads its own handler stands there, through which setuid and its like reach every
// thread. A signal 33 that meets that handler outside a setuid crashes the process; and while the
// handler is away, a setuid waits for ever. So the two share the signal:
//
//     the library's sigaction(33, handler)  puts Dispatch in front, and reports the C library's
//                                           handler as SIG_DFL
//     the library's tgkill(tid, 33)         queues the signal with a value of its own
//     Dispatch, with the latest value       calls the library's handler; drops the signal if the
//                                           library ignores it or has restored its action
//     Dispatch, with anything else          calls the C library's handler, which ignores queued
//                                           signals, and so the library's late ones
//     the library restores the action       restores the C library's handler
//
// An action that the host process itself installed, by the kernel's own call, is reported as it is
// and restored as it was. Where the kernel refuses to queue the signal, tgkill fails: a signal sent
// in another way could meet the C library's handler and end the process.
//
// The linker redirects the library's calls of these names to here (--wrap).

#include <errno.h>
#include <gnu/libc-version.h>
#include <link.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

extern "C" {

int __real_sigaction(int signal_number, const struct sigaction* action, struct sigaction* old);
sighandler_t __real_signal(int signal_number, sighandler_t handler);
int __real_tgkill(pid_t pid, pid_t tid, int signal_number);

int __wrap_sigaction(int signal_number, const struct sigaction* action, struct sigaction* old);
sighandler_t __wrap_signal(int signal_number, sighandler_t handler);
int __wrap_tgkill(pid_t pid, pid_t tid, int signal_number);

}  // extern "C"

namespace {

using Handler = void (*)(int, siginfo_t*, void*);

constexpr int kUnwindSignal = 33;
constexpr int kCancelSignal = 32;  // the C library's, for pthread_cancel
constexpr size_t kKernelSetSize = 8;

constexpr uint64_t BitOf(int signal_number) {
  return uint64_t{1} << (signal_number - 1);
}

// The signals that a thread raises itself.
constexpr uint64_t kFaults = BitOf(SIGSEGV) | BitOf(SIGBUS) | BitOf(SIGILL) | BitOf(SIGFPE) |
                             BitOf(SIGTRAP) | BitOf(SIGSYS) | BitOf(SIGABRT);

// As the kernel declares it.
struct KernelAction {
  Handler handler;
  unsigned long flags;
  void (*restorer)();
  uint64_t mask;
};

#if defined(__x86_64__)
constexpr unsigned long kRestorerFlag = 0x04000000;  // SA_RESTORER

// The kernel returns from a handler through this. Debuggers and unwinders recognise a signal frame
// by exactly these bytes.
extern "C" __attribute__((visibility("hidden"))) void quorvel_host_restorer();
asm(".pushsection .text\n"
    ".hidden quorvel_host_restorer\n"
    ".type quorvel_host_restorer, @function\n"
    "  nop\n"
    "quorvel_host_restorer:\n"
    "  mov $15, %rax\n"
    "  syscall\n"
    ".size quorvel_host_restorer, . - quorvel_host_restorer\n"
    ".popsection\n");

void SetRestorer(KernelAction* action) {
  action->flags |= kRestorerFlag;
  action->restorer = quorvel_host_restorer;
}
#else
// The kernel maps the return into every process.
void SetRestorer(KernelAction*) {}
#endif

long KernelSigaction(const KernelAction* action, KernelAction* old) {
  return syscall(SYS_rt_sigaction, kUnwindSignal, action, old, kKernelSetSize);
}

// The kernel has one field for both kinds of handler.
Handler AsHandler(sighandler_t handler) {
  Handler result;
  memcpy(&result, &handler, sizeof(result));
  return result;
}

// The value of the signal sent last. The unwinder has one exchange at a time: a signal with an
// earlier value is late, and nobody waits for it any more.
std::atomic<uintptr_t> g_latest_value{0};

// The library's handler, or SIG_DFL or SIG_IGN.
std::atomic<Handler> g_library_handler{AsHandler(SIG_DFL)};

// The handler that the host process itself had installed when it was last reported.
std::atomic<Handler> g_host_handler{nullptr};

// The C library's action, once it has been seen; written before Dispatch is first installed.
KernelAction g_libc_action;
std::atomic<Handler> g_libc_handler{nullptr};

// The addresses of the C library's code. Looked up at load, while no thread is stopped.
struct CodeRange {
  uintptr_t start;
  uintptr_t end;
};
const CodeRange g_libc_code = [] {
  CodeRange range = {0, 0};
  dl_iterate_phdr(
      [](struct dl_phdr_info* info, size_t, void* result) {
        const uintptr_t inside = reinterpret_cast<uintptr_t>(&gnu_get_libc_version);
        for (int i = 0; i < info->dlpi_phnum; ++i) {
          const ElfW(Phdr)& segment = info->dlpi_phdr[i];
          const uintptr_t start = info->dlpi_addr + segment.p_vaddr;
          const uintptr_t end = start + segment.p_memsz;
          if (segment.p_type != PT_LOAD || inside < start || inside >= end) continue;
          *static_cast<CodeRange*>(result) = {start, end};
          return 1;
        }
        return 0;
      },
      &range);
  return range;
}();

bool IsLibcHandler(Handler handler) {
  const uintptr_t address = reinterpret_cast<uintptr_t>(handler);
  return address >= g_libc_code.start && address < g_libc_code.end;
}

void RestoreMask(void* context) {
  const sigset_t& mask = static_cast<const ucontext_t*>(context)->uc_sigmask;
  syscall(SYS_rt_sigprocmask, SIG_SETMASK, &mask, nullptr, kKernelSetSize);
}

// A device has no thread cancellation. Here it would unwind a thread out of the library's handler,
// with the library's locks held and the signal blocked for good: a later setuid would wait for
// ever. The action's mask blocks the C library's signal for it, and every signal from outside,
// because a handler of the host could jump out of this one. They are delivered when the handler
// returns.
void CallUncancelled(Handler handler, int signal_number, siginfo_t* info, void* context) {
  int type, state;
  pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &type);
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
  handler(signal_number, info, context);
  pthread_setcancelstate(state, nullptr);
  if (type == PTHREAD_CANCEL_DEFERRED) return;
  // A blocking call makes its thread's cancellation asynchronous. A thread that was cancelled
  // meanwhile ends from here, and its clean-up handlers must find the signal unblocked.
  pthread_cleanup_push(RestoreMask, context);
  pthread_setcanceltype(type, nullptr);  // may not return
  pthread_cleanup_pop(0);
}

void Dispatch(int signal_number, siginfo_t* info, void* context) {
  const Handler handler = g_library_handler.load();
  const bool callable = handler != AsHandler(SIG_DFL) && handler != AsHandler(SIG_IGN);
  const auto value = reinterpret_cast<uintptr_t>(info->si_value.sival_ptr);
  if (info->si_code == SI_QUEUE && value == g_latest_value.load()) {
    if (callable) CallUncancelled(handler, signal_number, info, context);
  } else if (const Handler libc = g_libc_handler.load()) {
    libc(signal_number, info, context);
  }
}

KernelAction DispatchAction(const struct sigaction& action) {
  KernelAction kernel = {};
  kernel.handler = Dispatch;
  kernel.flags = static_cast<unsigned long>(static_cast<unsigned>(action.sa_flags)) | SA_SIGINFO;
  memcpy(&kernel.mask, &action.sa_mask, sizeof(kernel.mask));
  kernel.mask |= BitOf(kCancelSignal) | ~kFaults;
  SetRestorer(&kernel);
  return kernel;
}

// Tells a caller of the kernel's action what a device would.
void Report(const KernelAction& kernel, struct sigaction* old) {
  memset(old, 0, sizeof(*old));
  const bool callable =
      kernel.handler != AsHandler(SIG_DFL) && kernel.handler != AsHandler(SIG_IGN);
  if (!callable || kernel.handler == Dispatch || IsLibcHandler(kernel.handler)) {
    old->sa_sigaction = callable ? g_library_handler.load() : kernel.handler;
    old->sa_flags = kernel.handler == Dispatch ? static_cast<int>(kernel.flags) : 0;
    return;
  }
  g_host_handler.store(kernel.handler);
  old->sa_sigaction = kernel.handler;
  old->sa_flags = static_cast<int>(kernel.flags);
  old->sa_restorer = kernel.restorer;
  memcpy(&old->sa_mask, &kernel.mask, sizeof(kernel.mask));
}

bool IsHostHandler(const struct sigaction& action) {
  const Handler handler = g_host_handler.load();
  return handler != nullptr && action.sa_sigaction == handler;
}

long InstallHostAction(const struct sigaction& action) {
  KernelAction kernel = {action.sa_sigaction,
                         static_cast<unsigned long>(static_cast<unsigned>(action.sa_flags)),
                         action.sa_restorer, 0};
  memcpy(&kernel.mask, &action.sa_mask, sizeof(kernel.mask));
  g_library_handler.store(AsHandler(SIG_DFL));
  return KernelSigaction(&kernel, nullptr);
}

long Install(const struct sigaction& action) {
  if (IsHostHandler(action)) return InstallHostAction(action);
  const bool default_or_ignore = action.sa_handler == SIG_DFL || action.sa_handler == SIG_IGN;
  g_library_handler.store(action.sa_sigaction);
  if (!default_or_ignore) {
    const KernelAction kernel = DispatchAction(action);
    return KernelSigaction(&kernel, nullptr);
  }
  if (g_libc_handler.load() == nullptr) {  // no threads yet, so the kernel's default or ignore
    KernelAction kernel = {};
    kernel.handler = action.sa_sigaction;
    return KernelSigaction(&kernel, nullptr);
  }
  return KernelSigaction(&g_libc_action, nullptr);
}

int UnwindSignalAction(const struct sigaction* action, struct sigaction* old) {
  KernelAction kernel_old = {};
  if (KernelSigaction(nullptr, &kernel_old) != 0) return -1;
  if (IsLibcHandler(kernel_old.handler) && g_libc_handler.load() == nullptr) {
    g_libc_action = kernel_old;
    g_libc_handler.store(kernel_old.handler);
  }
  if (old != nullptr) Report(kernel_old, old);
  return action == nullptr ? 0 : static_cast<int>(Install(*action));
}

}  // namespace

int __wrap_sigaction(int signal_number, const struct sigaction* action, struct sigaction* old) {
  if (signal_number == kUnwindSignal) return UnwindSignalAction(action, old);
  return __real_sigaction(signal_number, action, old);
}

sighandler_t __wrap_signal(int signal_number, sighandler_t handler) {
  if (signal_number != kUnwindSignal) return __real_signal(signal_number, handler);
  struct sigaction action = {};
  struct sigaction old = {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  return UnwindSignalAction(&action, &old) == 0 ? old.sa_handler : SIG_ERR;
}

int __wrap_tgkill(pid_t pid, pid_t tid, int signal_number) {
  if (signal_number != kUnwindSignal) return __real_tgkill(pid, tid, signal_number);
  siginfo_t info = {};
  info.si_signo = signal_number;
  info.si_code = SI_QUEUE;
  info.si_pid = pid;
  info.si_uid = getuid();
  info.si_value.sival_ptr = reinterpret_cast<void*>(g_latest_value.fetch_add(1) + 1);
  return static_cast<int>(syscall(SYS_rt_tgsigqueueinfo, pid, tid, signal_number, &info));
}
