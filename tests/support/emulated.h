// What user-mode emulation cannot do is skipped under it, in plain sight.
#ifndef QUORVEL_TESTS_SUPPORT_EMULATED_H_
#define QUORVEL_TESTS_SUPPORT_EMULATED_H_

#include <gtest/gtest.h>
#include <sys/uio.h>
#include <unistd.h>

// Whether an emulator runs this program: the call is one that it does not know.
inline bool Emulated() {
  char bytes[2] = {};
  const iovec from = {&bytes[0], 1};
  const iovec to = {&bytes[1], 1};
  return process_vm_readv(getpid(), &to, 1, &from, 1, 0) != 1;
}

#define SKIP_UNDER_EMULATION(reason) \
  if (Emulated()) GTEST_SKIP() << "under emulation: " << (reason)

#endif  // QUORVEL_TESTS_SUPPORT_EMULATED_H_
