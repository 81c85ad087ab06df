// The registers within a context that the kernel saved.
#ifndef QUORVEL_HOST_UNWINDSTACK_MACHINE_CONTEXT_H_
#define QUORVEL_HOST_UNWINDSTACK_MACHINE_CONTEXT_H_

#include <stddef.h>
#include <stdint.h>
#include <ucontext.h>

namespace unwindstack {

// How much of the front of a machine context ReadMachineContext looks at.
#if defined(__x86_64__)
constexpr size_t kMachineContextHead = sizeof(gregset_t);
#else
constexpr size_t kMachineContextHead = offsetof(mcontext_t, pc) + sizeof(uint64_t);
#endif

// Fills `values`, kRegCount words in the order of HostRegs.
void ReadMachineContext(const mcontext_t& context, uint64_t* values);

}  // namespace unwindstack

#endif  // QUORVEL_HOST_UNWINDSTACK_MACHINE_CONTEXT_H_
