// The memory that an unwind reads.
#ifndef QUORVEL_HOST_UNWINDSTACK_PUBLIC_MEMORY_H_
#define QUORVEL_HOST_UNWINDSTACK_PUBLIC_MEMORY_H_

#include <sys/types.h>

#include <memory>

namespace unwindstack {

class Memory {
 public:
  // The calling process's memory, whatever `pid` names: the host layer unwinds no other process.
  // Allocates nothing.
  static std::shared_ptr<Memory> CreateProcessMemory(pid_t pid);
};

}  // namespace unwindstack

#endif  // QUORVEL_HOST_UNWINDSTACK_PUBLIC_MEMORY_H_
