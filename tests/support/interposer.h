// Makes chosen calls of the code under test fail. The test program is linked so that its calls come
// here first; unless a fault is armed they are the real ones. Included once.
#ifndef QUORVEL_TESTS_FAULTS_INTERPOSER_H_
#define QUORVEL_TESTS_FAULTS_INTERPOSER_H_

#include <dirent.h>
#include <errno.h>
#include <fnmatch.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>

// In place of an errno: the process is killed as it makes the call; a write ends half-way.
constexpr int kDie = -1, kHalf = -2;

struct Fault {
  const char* call;    // a pattern of fnmatch, with alternatives
  const char* target;  // the same, of the path that is named or lies behind the descriptor
  int error;
  int skip = 0;  // matching calls that still succeed
  int times = INT_MAX;
  const char* struck = nullptr;  // the call that failed last
};

// The one that is armed, for this thread alone.
static thread_local Fault* t_fault = nullptr;

static bool Fails(const char* call, const char* path, int fd = -1) {
  if (t_fault == nullptr || fnmatch(t_fault->call, call, FNM_EXTMATCH) != 0) return false;
  char behind[PATH_MAX] = {};
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  if (readlink(link.c_str(), behind, sizeof(behind) - 1) > 0) path = behind;
  if (fnmatch(t_fault->target, path, FNM_EXTMATCH) != 0) return false;
  if (t_fault->skip-- > 0 || t_fault->times-- <= 0) return false;
  if (t_fault->error == kDie) kill(getpid(), SIGKILL);
  t_fault->struck = call;
  errno = t_fault->error;
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
WRAP(int, open, (const char* path, int flags, mode_t mode), (path, flags, mode), (path), -1)
WRAP(int, openat, (int fd, const char* path, int flags), (fd, path, flags), (path), -1)
WRAP(int, unlink, (const char* path), (path), (path), -1)
WRAP(int, unlinkat, (int fd, const char* path, int flags), (fd, path, flags), (path), -1)
WRAP(int, rename, (const char* from, const char* to), (from, to), (to), -1)
WRAP(int, scandirat,
     (int fd, const char* path, struct dirent*** list, int (*filter)(const dirent*),
      int (*order)(const dirent**, const dirent**)),
     (fd, path, list, filter, order), ("", fd), -1)
WRAP(int, fchmod, (int fd, mode_t mode), (fd, mode), ("", fd), -1)
WRAP(ssize_t, read, (int fd, void* to, size_t size), (fd, to, size), ("", fd), -1)
WRAP(ssize_t, write, (int fd, const void* from, size_t size), (fd, from, size), ("", fd),
     t_fault->error == kHalf ? __real_write(fd, from, (size + 1) / 2) : -1)
WRAP(DIR*, fdopendir, (int fd), (fd), ("", fd), nullptr)
WRAP(struct dirent*, readdir, (DIR * dir), (dir), (""), nullptr)
WRAP(void*, malloc, (size_t size), (size), (""), nullptr)
WRAP(int, prctl, (int option, unsigned long a, unsigned long b, unsigned long c, unsigned long d),
     (option, a, b, c, d), (""), -1)

// Never waits for a disk: nothing here outlives the machine.
int __wrap_fsync(int fd) {
  return Fails("fsync", "", fd) ? -1 : 0;
}

// One that fails still closes, as the kernel's does.
int __real_close(int fd);
int __wrap_close(int fd) {
  const int result = __real_close(fd);
  return Fails("close", "") ? -1 : result;
}

// The calls that go to the kernel directly.
long __real_syscall(long number, ...);
long __wrap_syscall(long number, long a, long b, long c, long d, long e, long f) {
  if (number == SYS_rt_sigaction && Fails("rt_sigaction", "")) return -1;
  if (number == SYS_rt_tgsigqueueinfo && Fails("tgkill", "")) return -1;
  if (number == SYS_process_vm_readv && Fails("process_vm_readv", "")) return -1;
  return __real_syscall(number, a, b, c, d, e, f);
}

}  // extern "C"

#endif  // QUORVEL_TESTS_FAULTS_INTERPOSER_H_
