// Reading memory that may not be there.
#ifndef QUORVEL_HOST_UNWINDSTACK_PUBLIC_MEMORY_H_
#define QUORVEL_HOST_UNWINDSTACK_PUBLIC_MEMORY_H_

#include <stdint.h>
#include <sys/types.h>

#include <memory>

namespace unwindstack {

class Memory {
 public:
  // The calling process's memory, whatever `pid` names: the host layer unwinds no other process.
  // Allocates nothing.
  static std::shared_ptr<Memory> CreateProcessMemory(pid_t pid);

  // Copies `size` bytes from address `addr`; false, with `dst` undefined, where not all of them are
  // readable. Never faults, takes no lock.
  bool ReadFully(uint64_t addr, void* dst, size_t size);
};

}  // namespace unwindstack

#endif  // QUORVEL_HOST_UNWINDSTACK_PUBLIC_MEMORY_H_
