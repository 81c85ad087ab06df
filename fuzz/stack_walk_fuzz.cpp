// An ELF file of any bytes, mapped as code; registers and a stack of any content that lead into it.
// Reading the file's functions, its unwind tables and the stack comes to an end and harms nothing.

#include <sys/mman.h>
#include <unistd.h>

#include "elf_image.h"
#include "fuzz.h"
#include "unwind/unwindstack_wrapper.h"

namespace {

using unwindstack::ElfImage;

void CheckFunctions(const ElfImage& image, Input input) {
  for (int i = 0; i < 64; ++i) {
    ElfImage::Function function;
    const uint64_t vaddr = i < 32 ? input.Take<uint16_t>() : input.Take<uint64_t>();
    if (!image.FindFunction(vaddr, &function)) continue;
    CLAIM(function.start <= vaddr && !function.name.empty());
    CLAIM(strnlen(function.name.data(), function.name.size() + 1) == function.name.size());
  }
}

void ReadImage(const Input& input) {
  unwindstack::BufferSource bytes({reinterpret_cast<const char*>(input.data), input.size});
  ElfImage image;
  if (!image.ReadHeaders(&bytes)) return;
  if (image.ReadSectionSymbols(&bytes)) CheckFunctions(image, input);
  if (image.ReadDynamicSymbols(&bytes, 0x10000)) CheckFunctions(image, input);
}

void SetRegisters(mcontext_t* context, uint64_t pc, uint64_t sp, Input* input) {
#if defined(__x86_64__)
  for (auto& value : context->gregs) value = static_cast<greg_t>(sp) + input->Take<int16_t>();
  context->gregs[REG_RIP] = static_cast<greg_t>(pc);
  context->gregs[REG_RSP] = static_cast<greg_t>(sp);
#else
  for (auto& value : context->regs) value = sp + input->Take<uint16_t>();
  context->pc = pc;
  context->sp = sp;
#endif
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input{data, size};
  const uint16_t seed = input.Take<uint16_t>();  // the rest is the file
  ReadImage(input);

  static const int fd = memfd_create("fuzz", MFD_CLOEXEC);
  const size_t length = (input.size / 4096 + 1) * 4096;
  CLAIM(ftruncate(fd, 0) == 0 && ftruncate(fd, static_cast<off_t>(length)) == 0);
  CLAIM(pwrite(fd, input.data, input.size, 0) == static_cast<ssize_t>(input.size));
  void* const code = mmap(nullptr, length, PROT_READ | PROT_EXEC, MAP_PRIVATE, fd, 0);
  CLAIM(code != MAP_FAILED);
  const uint64_t base = reinterpret_cast<uint64_t>(code);

  uint64_t stack[64];  // of words that point into the file, to the stack, and nowhere
  for (uint64_t& word : stack) {
    const unsigned value = (input.Take<uint16_t>() * 31u + seed) & 0xffff;
    const uint64_t to_stack = reinterpret_cast<uint64_t>(&stack[value / 4 % 64]);
    word = value % 4 == 0 ? value : value % 4 == 1 ? to_stack : base + value / 4 % length;
  }
  ucontext_t context = {};
  SetRegisters(&context.uc_mcontext, base + seed % length, reinterpret_cast<uint64_t>(stack),
               &input);
  unwindstack_wrapper unwinder;
  CLAIM(unwinder.unwind(0, &context, 64));
  CLAIM(unwinder.num_frames <= 64 && unwinder.num_frames > 0);
  for (size_t i = 0; i < unwinder.num_frames; ++i) CLAIM(!unwinder.frame_string(i).empty());
  munmap(code, length);
  return 0;
}
