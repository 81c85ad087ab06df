// A thread's general registers, as the starting point of an unwind.
//
// Objects come from a small pool of their own, so that making and deleting one takes no lock and
// allocates nothing while another thread is parked. Any thread may use them; one object is for one
// thread at a time.
#ifndef QUORVEL_HOST_UNWINDSTACK_PUBLIC_REGS_H_
#define QUORVEL_HOST_UNWINDSTACK_PUBLIC_REGS_H_

#include <stddef.h>
#include <stdint.h>

#include <unwindstack/Arch.h>

namespace unwindstack {

class Regs {
 public:
  virtual ~Regs() = default;

  static constexpr ArchEnum CurrentArch() {
#if defined(__x86_64__)
    return ARCH_X86_64;
#elif defined(__aarch64__)
    return ARCH_ARM64;
#elif defined(__arm__)
    return ARCH_ARM;  // only compiled, see scripts/device-check: the host layer cannot unwind there
#else
#error "the host's unwinder knows x86-64 and aarch64"
#endif
  }

  // Of a `ucontext_t`, of which only uc_mcontext is read. Null for a null context, for another
  // architecture than the current one, or when memory is exhausted.
  static Regs* CreateFromUcontext(ArchEnum arch, void* ucontext);

  // Empty registers, for RegsGetLocal to fill. Null when memory is exhausted.
  static Regs* CreateFromLocal();

  virtual ArchEnum Arch();

  // The register file, in DWARF order with the program counter after the last general register:
  // kCount words.
  void* RawData() {
    return values_;
  }

#if defined(__x86_64__)
  static constexpr size_t kFp = 6, kSp = 7, kPc = 16, kCount = 17;
#elif defined(__arm__)
  static constexpr size_t kFp = 11, kSp = 13, kLr = 14, kPc = 15, kCount = 16;
#else
  static constexpr size_t kFp = 29, kLr = 30, kSp = 31, kPc = 32, kCount = 33;
#endif
  uint64_t operator[](size_t index) const {
    return values_[index];
  }

  static void* operator new(size_t size) noexcept;
  static void operator delete(void* object) noexcept;

 private:
  Regs() = default;

  uintptr_t values_[kCount] = {};
};

}  // namespace unwindstack

#endif  // QUORVEL_HOST_UNWINDSTACK_PUBLIC_REGS_H_
