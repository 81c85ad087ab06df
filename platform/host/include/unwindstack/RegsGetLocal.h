// Captures the calling thread's registers in place.
#ifndef QUORVEL_HOST_UNWINDSTACK_PUBLIC_REGS_GET_LOCAL_H_
#define QUORVEL_HOST_UNWINDSTACK_PUBLIC_REGS_GET_LOCAL_H_

#include <unwindstack/Regs.h>

namespace unwindstack {

// Fills `regs` with the registers as they are at this very point of the calling function: the
// program counter lies in the caller, whose frame becomes frame 0. Always inlined for that reason.
__attribute__((always_inline)) inline void RegsGetLocal(Regs* regs) {
  void* const data = regs->RawData();
#if defined(__x86_64__)
  asm volatile(
      "movq %%rax, 0(%[data])\n\t"
      "movq %%rdx, 8(%[data])\n\t"
      "movq %%rcx, 16(%[data])\n\t"
      "movq %%rbx, 24(%[data])\n\t"
      "movq %%rsi, 32(%[data])\n\t"
      "movq %%rdi, 40(%[data])\n\t"
      "movq %%rbp, 48(%[data])\n\t"
      "movq %%rsp, 56(%[data])\n\t"
      "movq %%r8, 64(%[data])\n\t"
      "movq %%r9, 72(%[data])\n\t"
      "movq %%r10, 80(%[data])\n\t"
      "movq %%r11, 88(%[data])\n\t"
      "movq %%r12, 96(%[data])\n\t"
      "movq %%r13, 104(%[data])\n\t"
      "movq %%r14, 112(%[data])\n\t"
      "movq %%r15, 120(%[data])\n\t"
      "leaq 0f(%%rip), %%rax\n"
      "0:\n\t"
      "movq %%rax, 128(%[data])\n\t"
      :
      : [data] "r"(data)
      : "rax", "memory");
#elif defined(__aarch64__)
  asm volatile(
      "stp x0, x1, [%[data], #0]\n\t"
      "stp x2, x3, [%[data], #16]\n\t"
      "stp x4, x5, [%[data], #32]\n\t"
      "stp x6, x7, [%[data], #48]\n\t"
      "stp x8, x9, [%[data], #64]\n\t"
      "stp x10, x11, [%[data], #80]\n\t"
      "stp x12, x13, [%[data], #96]\n\t"
      "stp x14, x15, [%[data], #112]\n\t"
      "stp x16, x17, [%[data], #128]\n\t"
      "stp x18, x19, [%[data], #144]\n\t"
      "stp x20, x21, [%[data], #160]\n\t"
      "stp x22, x23, [%[data], #176]\n\t"
      "stp x24, x25, [%[data], #192]\n\t"
      "stp x26, x27, [%[data], #208]\n\t"
      "stp x28, x29, [%[data], #224]\n\t"
      "str x30, [%[data], #240]\n\t"
      "mov x9, sp\n\t"
      "adr x10, 0f\n"
      "0:\n\t"
      "stp x9, x10, [%[data], #248]\n\t"
      :
      : [data] "r"(data)
      : "x9", "x10", "memory");
#else
  asm volatile(
      "stmia %[data], {r0-r12}\n\t"
      "str sp, [%[data], #52]\n\t"
      "str lr, [%[data], #56]\n\t"
      "adr r12, 0f\n"
      "0:\n\t"
      "str r12, [%[data], #60]\n\t"
      :
      : [data] "r"(data)
      : "r12", "memory");
#endif
}

}  // namespace unwindstack

#endif  // QUORVEL_HOST_UNWINDSTACK_PUBLIC_REGS_GET_LOCAL_H_
