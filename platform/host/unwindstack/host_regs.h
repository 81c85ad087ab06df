// The registers behind unwindstack::Regs.
#ifndef QUORVEL_HOST_UNWINDSTACK_HOST_REGS_H_
#define QUORVEL_HOST_UNWINDSTACK_HOST_REGS_H_

#include <stddef.h>
#include <stdint.h>

#include <unwindstack/Regs.h>

namespace unwindstack {

// The general registers by their DWARF numbers, then the program counter.
#if defined(__x86_64__)
constexpr size_t kRegFp = 6, kRegSp = 7, kRegPc = 16, kRegCount = 17;
#elif defined(__aarch64__)
constexpr size_t kRegFp = 29, kRegLr = 30, kRegSp = 31, kRegPc = 32, kRegCount = 33;
#else
#error "the host's unwinder knows x86-64 and aarch64"
#endif

// Objects come from a small pool, so that another thread may be stopped while one is made or
// deleted.
class HostRegs final : public Regs {
 public:
  HostRegs() = default;
  ArchEnum Arch() override;

  uint64_t* values() { return values_; }
  const uint64_t* values() const { return values_; }

  static void* operator new(size_t size) noexcept;
  static void operator delete(void* object) noexcept;

 private:
  void* RawData() override { return values_; }

  uint64_t values_[kRegCount] = {};
};

// kRegCount words. Every Regs is a HostRegs.
inline uint64_t* ValuesOf(Regs* regs) {
  return static_cast<HostRegs*>(regs)->values();
}

}  // namespace unwindstack

#endif  // QUORVEL_HOST_UNWINDSTACK_HOST_REGS_H_
