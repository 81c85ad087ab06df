// A thread's registers, as the starting point of an unwind.
//
// Any thread may use them; one object is for one thread at a time. Making and deleting one uses no
// lock and nothing of the C library's heap, so another thread may be stopped meanwhile.
#ifndef QUORVEL_HOST_UNWINDSTACK_PUBLIC_REGS_H_
#define QUORVEL_HOST_UNWINDSTACK_PUBLIC_REGS_H_

#include <unwindstack/Arch.h>

namespace unwindstack {

class Regs {
 public:
  virtual ~Regs() = default;

  static ArchEnum CurrentArch() {
#if defined(__x86_64__)
    return ARCH_X86_64;
#elif defined(__aarch64__)
    return ARCH_ARM64;
#elif defined(__arm__)
    return ARCH_ARM;  // only compiled, see scripts/device-check: the host layer cannot unwind there
#else
#error "an architecture that the library is not built for"
#endif
  }

  // From a `ucontext_t`, of which only uc_mcontext is read. Null for a null context, for another
  // architecture than the current one, and when memory is exhausted. The caller deletes the result.
  static Regs* CreateFromUcontext(ArchEnum arch, void* ucontext);

  // Empty registers, for RegsGetLocal to fill. Null when memory is exhausted. The caller deletes
  // the result.
  static Regs* CreateFromLocal();

  virtual ArchEnum Arch() = 0;

 private:
  friend class HostRegs;
  friend void RegsGetLocal(Regs* regs);

  Regs() = default;

  // The general registers, in the order of their DWARF numbers, and after them the program counter:
  // words of the architecture.
  virtual void* RawData() = 0;
};

}  // namespace unwindstack

#endif  // QUORVEL_HOST_UNWINDSTACK_PUBLIC_REGS_H_
