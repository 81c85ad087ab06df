// The processor architectures that the unwinder's interface knows by name.
#ifndef QUORVEL_HOST_UNWINDSTACK_PUBLIC_ARCH_H_
#define QUORVEL_HOST_UNWINDSTACK_PUBLIC_ARCH_H_

#include <stdint.h>

namespace unwindstack {

enum ArchEnum : uint8_t {
  ARCH_UNKNOWN = 0,
  ARCH_ARM,
  ARCH_ARM64,
  ARCH_X86,
  ARCH_X86_64,
  ARCH_MIPS,
  ARCH_MIPS64,
};

}  // namespace unwindstack

#endif  // QUORVEL_HOST_UNWINDSTACK_PUBLIC_ARCH_H_
