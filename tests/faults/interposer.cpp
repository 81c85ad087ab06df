#include "interposer.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

thread_local ScopedFault* t_fault = nullptr;

bool Matches(const char* path, const char* target) {
  if (target[0] == '*') return strstr(path, target + 1) != nullptr;
  const size_t length = strlen(path);
  return length >= strlen(target) && strcmp(path + length - strlen(target), target) == 0;
}

bool Fails(const char* call, const char* path, int fd = -1) {
  return t_fault != nullptr && t_fault->Strikes(call, path, fd);
}

}  // namespace

ScopedFault::ScopedFault(const Fault& fault) : fault_(fault) {
  t_fault = this;
}
ScopedFault::~ScopedFault() {
  t_fault = nullptr;
}

bool ScopedFault::Strikes(const char* call, const char* path, int fd) {
  if (fault_.call[0] != '*' && strcmp(call, fault_.call) != 0) return false;
  char behind[PATH_MAX] = {};
  if (fault_.target[0] != '\0' && fd != -1) {
    char link[64];
    snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    if (readlink(link, behind, sizeof(behind) - 1) == -1) return false;
    path = behind;
  }
  if (!Matches(path, fault_.target)) return false;
  const int call_number = calls_++;
  if (call_number < fault_.skip || call_number - fault_.skip >= fault_.times) return false;
  if (fault_.error == kDie) kill(getpid(), SIGKILL);
  errno = fault_.error;
  return true;
}

// WRAP(result, call, parameters, arguments, what Fails is told of the target, failing result)
#define UNPACK(...) __VA_ARGS__
#define WRAP(type, name, parameters, arguments, target, failure)            \
  type __real_##name parameters;                                            \
  type __wrap_##name parameters {                                           \
    return Fails(#name, UNPACK target) ? failure : __real_##name arguments; \
  }

extern "C" {

WRAP(int, lstat, (const char* path, struct stat* st), (path, st), (path), -1)
WRAP(int, access, (const char* path, int mode), (path, mode), (path), -1)
WRAP(int, unlink, (const char* path), (path), (path), -1)
WRAP(int, unlinkat, (int fd, const char* path, int flags), (fd, path, flags), (path), -1)
WRAP(int, rename, (const char* from, const char* to), (from, to), (to), -1)
WRAP(int, scandirat,
     (int fd, const char* path, struct dirent*** list, int (*filter)(const dirent*),
      int (*order)(const dirent**, const dirent**)),
     (fd, path, list, filter, order), ("", fd), -1)
WRAP(int, fchmod, (int fd, mode_t mode), (fd, mode), ("", fd), -1)
WRAP(ssize_t, read, (int fd, void* to, size_t size), (fd, to, size), ("", fd), -1)
WRAP(ssize_t, write, (int fd, const void* from, size_t size), (fd, from, size), ("", fd), -1)
WRAP(DIR*, fdopendir, (int fd), (fd), ("", fd), nullptr)
WRAP(struct dirent*, readdir, (DIR * dir), (dir), (""), nullptr)
WRAP(void*, malloc, (size_t size), (size), (""), nullptr)
WRAP(int, prctl, (int option, unsigned long a, unsigned long b, unsigned long c, unsigned long d),
     (option, a, b, c, d), (""), -1)

// Never waits for a disk: nothing here outlives the machine.
int __wrap_fsync(int fd) {
  return Fails("fsync", "", fd) ? -1 : 0;
}

int __real_close(int fd);
int __wrap_close(int fd) {
  const bool fails = Fails("close", "", fd);
  const int error = errno;
  const int result = __real_close(fd);
  if (fails) errno = error;
  return fails ? -1 : result;
}

int __real_openat(int dir, const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...) {
  va_list mode;
  va_start(mode, flags);
  const mode_t bits = (flags & O_CREAT) != 0 ? va_arg(mode, mode_t) : 0;
  va_end(mode);
  return Fails("open", path) ? -1 : __real_openat(AT_FDCWD, path, flags, bits);
}
int __wrap_openat(int dir, const char* path, int flags, ...) {  // without O_CREAT
  return Fails("openat", path) ? -1 : __real_openat(dir, path, flags);
}

// The calls that go to the kernel directly; the log's own are let be, where the thread's id cannot
// fail either.
long __real_syscall(long number, ...);
long __wrap_syscall(long number, long a, long b, long c, long d, long e, long f) {
  const char* name = number == SYS_rt_sigaction       ? "rt_sigaction"
                     : number == SYS_process_vm_readv ? "process_vm_readv"
                                                      : nullptr;
  if (name != nullptr && Fails(name, "")) return -1;
  return __real_syscall(number, a, b, c, d, e, f);
}

// Here the C library's itself is replaced: the host layer has the linker's --wrap of it.
int tgkill(pid_t pid, pid_t tid, int signal_number) {
  if (Fails("tgkill", "")) return -1;
  return static_cast<int>(__real_syscall(SYS_tgkill, pid, tid, signal_number));
}

}  // extern "C"
