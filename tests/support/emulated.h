// What user-mode emulation cannot do is skipped under it, in plain sight.
#ifndef QUORVEL_TESTS_SUPPORT_EMULATED_H_
#define QUORVEL_TESTS_SUPPORT_EMULATED_H_

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

// Whether an emulator runs this program: the call is one that it does not know.
inline bool Emulated() {
  char byte = 0;
  char copy;
  iovec from = {&byte, 1};
  iovec to = {&copy, 1};
  return syscall(SYS_process_vm_readv, getpid(), &to, 1UL, &from, 1UL, 0UL) != 1;
}

#define SKIP_UNDER_EMULATION(reason) \
  if (Emulated()) GTEST_SKIP() << "under emulation: " << (reason)

#endif  // QUORVEL_TESTS_SUPPORT_EMULATED_H_
