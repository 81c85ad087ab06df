// The fuzzers: each function with the name of a target is a program of its own. An assertion that
// an input shows to be false ends the run.
#undef NDEBUG

#include <android/log.h>
#include <assert.h>
#include <cutils/trace.h>
#include <fcntl.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <kelvane.h>
#include <quorvel/quorvel.h>
#include <sys/mman.h>
#include <sys/system_properties.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "core/recovery_limit.h"
#include "elf_image.h"
#include "host_regs.h"
#include "log/quorvel_log.h"
#include "process_maps.h"
#include "unwind/unwindstack_wrapper.h"

using Input = FuzzedDataProvider&;

static std::string Text(Input input) {
  return input.ConsumeRandomLengthString().c_str();  // up to a NUL
}

// Recovery records, as the property store may hold them, and any program's name for one.
void recovery_record(Input input) {
  const int64_t now = input.ConsumeIntegral<uint32_t>();
  const QuorvelRecoveryRecord record = QuorvelParseRecoveryRecord(Text(input).c_str());
  const bool allowed = QuorvelRecoveryAllowed(record, now);
  assert(record.count >= 5 || allowed == (record.count >= 0));
  assert(record.count < 5 || record.time <= now || !allowed);
  const std::string written = std::to_string(record.count) + "," + std::to_string(record.time);
  assert(QuorvelParseRecoveryRecord(written.c_str()).time == record.time);
  assert(QuorvelRecoveryRecordName(true, Text(input).c_str()).size() <= 31);
}

// Lines printed into an incident, against a plain model of its buffer.
void printed_lines(Input input) {
  static const int fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
  __android_log_set_logger([](const __android_log_message*) {});
  std::string buffer;
  bool file = false;
  QuorvelSetLogFd(-1);
  QuorvelBeginLog(QUORVEL_FLAG_LOG);
  while (input.remaining_bytes() > 0) {
    const uint8_t kind = input.ConsumeIntegral<uint8_t>();
    if (kind == 255) {
      QuorvelClearLog();
      buffer.clear();
    } else if (kind == 254) {
      QuorvelSetLogFd((file = !file) ? fd : -1);
    } else {
      std::string line = Text(input);
      line.insert(line.size() / 2, kind * 5u, 'x');  // long ones hardly come by themselves
      QuorvelPrintLine("%s", line.c_str());
      const bool kept = line.size() >= 2 && line.size() <= 1022 && file;
      if (kept && line.back() != '\n') line += '\n';
      if (kept && buffer.size() + line.size() <= 4095) buffer += line;
    }
    assert(QuorvelLogLength() == buffer.size() && buffer == QuorvelLogText());
  }
}

// Whatever a property's file holds, its readers get a short text, or nothing.
void property_value(Input input) {
  const std::string content = input.ConsumeRemainingBytesAsString();
  const std::string store = getenv("QUORVEL_HOST_ROOT") + std::string("/dev/__properties__/");
  std::filesystem::create_directories(store);
  for (const char* name : {"dravik.event.12.config", "debug.atrace.tags.enableflags"}) {
    assert(std::ofstream(store + name) << content << std::flush);
  }
  char value[PROP_VALUE_MAX] = "xxxxxxxx", config[8];
  const int length = __system_property_get("dravik.event.12.config", value);
  assert(length >= 0 && length < PROP_VALUE_MAX && strlen(value) == static_cast<size_t>(length));
  assert(content.compare(0, strlen(value), value) == 0);
  assert((dravik_get_config(12, config, sizeof(config)) == 0) == (length > 0 && length < 8));
  atrace_get_enabled_tags();
}

// A list of mappings that is any text: what is read of it is in order and lies within the text.
void maps_text(Input input) {
  constexpr size_t kCapacity = 64;
  unwindstack::Mapping entries[kCapacity + 1] = {};
  const std::string text = input.ConsumeRemainingBytesAsString();
  const size_t count = unwindstack::ParseMapsText(text, entries, kCapacity);
  assert(count <= kCapacity && entries[kCapacity].end == 0);
  for (size_t i = 0; i < count; ++i) {
    const auto& [start, end, offset, inode, major, minor, prot, name, kept] = entries[i];
    assert(start < end && (i == 0 || start >= entries[i - 1].end));
    assert(name.empty() || (name.data() >= text.data() && &name.back() <= &text.back()));
  }
}

// An ELF file of any bytes, mapped as code; registers and a stack of any content that lead into it.
// Reading the file's functions, its unwind tables and the stack ends and does no harm.
void stack_walk(Input input) {
  std::minstd_rand random(input.ConsumeIntegral<uint16_t>());
  const std::string content = input.ConsumeRemainingBytesAsString();
  unwindstack::BufferSource bytes(content);
  for (const bool dynamic : {false, true}) {
    unwindstack::ElfImage image;
    if (!image.ReadHeaders(&bytes)) break;
    dynamic ? image.ReadDynamicSymbols(&bytes, 0x10000) : image.ReadSectionSymbols(&bytes);
    for (uint64_t vaddr = 0; vaddr < 0x4000; vaddr += 61) {
      unwindstack::ElfImage::Function function;
      assert(!image.FindFunction(vaddr, &function) || function.start <= vaddr);
    }
  }
  static const int fd = memfd_create("fuzz", MFD_CLOEXEC);
  const size_t length = (content.size() / 4096 + 1) * 4096;
  assert(ftruncate(fd, 0) == 0 && ftruncate(fd, static_cast<off_t>(length)) == 0);
  assert(pwrite(fd, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()));
  void* const code = mmap(nullptr, length, PROT_READ | PROT_EXEC, MAP_PRIVATE, fd, 0);
  assert(code != MAP_FAILED);
  const uint64_t base = reinterpret_cast<uint64_t>(code);

  uint64_t stack[64];  // of words that point into the file, to the stack, and nowhere
  const auto sp = reinterpret_cast<uint64_t>(stack);
  for (uint64_t& word : stack) {
    const uint64_t value = random();
    word = value % 4 == 0 ? value : value % 4 == 1 ? sp + value % 512 : base + value / 4 % length;
  }
  const std::unique_ptr<unwindstack::Regs> regs(unwindstack::Regs::CreateFromLocal());
  uint64_t* const values = unwindstack::ValuesOf(regs.get());
  for (size_t i = 0; i < unwindstack::kRegCount; ++i) values[i] = sp + random() % 512;
  values[unwindstack::kRegSp] = sp;
  values[unwindstack::kRegPc] = base + random() % length;
  unwindstack_wrapper unwinder;
  assert(unwinder._unwind_ucontext_with_reg(regs.get()));
  assert(unwinder.num_frames <= 64 && unwinder.num_frames > 0);
  munmap(code, length);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  FUZZ_TARGET(input);
  return 0;
}
