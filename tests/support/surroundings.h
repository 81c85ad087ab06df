// What tests run under: sanitizers, an emulator, an old or a confined kernel, a time to last.
#ifndef QUORVEL_TESTS_SUPPORT_SURROUNDINGS_H_
#define QUORVEL_TESTS_SUPPORT_SURROUNDINGS_H_

#include <errno.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <vector>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SANITIZED true
#else
#define SANITIZED false
#endif
#if defined(__SANITIZE_THREAD__)
constexpr bool kThreadSanitizer = true;
#else
constexpr bool kThreadSanitizer = false;
#endif

// Whether a user-mode emulator runs this program: the call is one that it does not know.
inline bool Emulated() {
  char bytes[2] = {};
  const iovec from = {&bytes[0], 1};
  const iovec to = {&bytes[1], 1};
  return process_vm_readv(getpid(), &to, 1, &from, 1, 0) != 1;
}

#define SKIP_UNDER_EMULATION(reason) \
  if (Emulated()) GTEST_SKIP() << "under emulation: " << (reason)

// QUORVEL_STRESS_SECONDS is for both storms together.
inline unsigned StormSeconds() {
  const char* const seconds = getenv("QUORVEL_STRESS_SECONDS");
  return static_cast<unsigned>(seconds != nullptr ? atoi(seconds) : 20) / 2;
}

// Puts the calling thread, from now on, behind a filter of its calls.
inline bool InstallFilter(std::vector<sock_filter> program) {
  const sock_fprog filter = {static_cast<unsigned short>(program.size()), program.data()};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

// Refuses what old or confined kernels do: questions about a single mapping, reads of one's own
// memory by that call, writes without a signal.
inline bool RefuseNewCalls() {
  return InstallFilter({
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_ioctl, 2, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_pwritev2, 1, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_process_vm_readv, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  });
}

// Has the kernel know, from now on, no write without a signal, as before 6.18, and open nothing.
inline bool RefuseWritesWithoutSignalAndOpens() {
  constexpr unsigned kNoSignal = 0x100;
  return InstallFilter({
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat, 3, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_pwritev2, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[5])),
      BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, kNoSignal, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EOPNOTSUPP),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  });
}

#endif  // QUORVEL_TESTS_SUPPORT_SURROUNDINGS_H_
