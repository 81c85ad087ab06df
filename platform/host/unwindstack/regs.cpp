#include <string.h>

#include <atomic>

#include "host_regs.h"
#include "machine_context.h"
#include "pages.h"

namespace unwindstack {
namespace {

constexpr size_t kSlots = 16;  // beyond them each object costs a page

struct Slot {
  alignas(HostRegs) char bytes[sizeof(HostRegs)];
};
Slot g_slots[kSlots];
std::atomic<bool> g_taken[kSlots];

#if defined(__x86_64__)
// Where the machine context keeps each register, in the order of HostRegs.
constexpr int kContextIndex[kRegCount] = {REG_RAX, REG_RDX, REG_RCX, REG_RBX, REG_RSI, REG_RDI,
                                          REG_RBP, REG_RSP, REG_R8,  REG_R9,  REG_R10, REG_R11,
                                          REG_R12, REG_R13, REG_R14, REG_R15, REG_RIP};
#endif

}  // namespace

void* HostRegs::operator new(size_t size) noexcept {
  for (size_t i = 0; i < kSlots; ++i) {
    if (!g_taken[i].exchange(true, std::memory_order_acquire)) return &g_slots[i];
  }
  return MapPages(size);
}

void HostRegs::operator delete(void* object) noexcept {
  const auto* const slot = static_cast<const Slot*>(object);
  if (slot >= g_slots && slot < g_slots + kSlots) {
    g_taken[slot - g_slots].store(false, std::memory_order_release);
  } else {
    UnmapPages(object, sizeof(HostRegs));
  }
}

ArchEnum HostRegs::Arch() {
  return CurrentArch();
}

Regs* Regs::CreateFromLocal() {
  return new HostRegs();
}

Regs* Regs::CreateFromUcontext(ArchEnum arch, void* ucontext) {
  if (arch != CurrentArch() || ucontext == nullptr) return nullptr;
  auto* const regs = new HostRegs();
  if (regs == nullptr) return nullptr;
  ReadMachineContext(static_cast<const ucontext_t*>(ucontext)->uc_mcontext, regs->values());
  return regs;
}

void ReadMachineContext(const mcontext_t& context, uint64_t* values) {
#if defined(__x86_64__)
  for (size_t i = 0; i < kRegCount; ++i) {
    values[i] = static_cast<uint64_t>(context.gregs[kContextIndex[i]]);
  }
#else
  static_assert(sizeof(context.regs) == kRegSp * sizeof(uint64_t), "x0 to x30");
  memcpy(values, context.regs, sizeof(context.regs));
  values[kRegSp] = context.sp;
  values[kRegPc] = context.pc;
#endif
}

}  // namespace unwindstack
