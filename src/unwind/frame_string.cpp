// The text of a frame.

#include <android-base/stringprintf.h>

#include "unwind/unwindstack_wrapper.h"

namespace {

using android::base::StringPrintf;
using unwindstack::FrameData;

// The platform's unwinding library counts addresses in 64 bits whatever the architecture.
unsigned long Address(uint64_t value) {
  return static_cast<unsigned long>(value);
}

std::string MapPart(const FrameData& frame) {
  if (frame.map_start == frame.map_end) return "  <unknown>";
  if (!frame.map_name.empty()) return std::string("  ") + frame.map_name.c_str();
  return StringPrintf("  <anonymous:%lx>", Address(frame.map_start));
}

std::string FunctionPart(const FrameData& frame) {
  if (frame.function_name.empty()) return "";
  std::string text = std::string(" (") + frame.function_name.c_str();
  if (frame.function_offset != 0) {
    text += "+" + std::to_string(static_cast<long>(frame.function_offset));
  }
  return text + ")";
}

}  // namespace

std::string unwindstack_wrapper::frame_string(size_t frame_num) {
  if (frame_num >= num_frames) return "";
  const FrameData& frame = frames[frame_num];
  std::string text = StringPrintf(is_32bit ? "  #%02zu pc %08lx" : "  #%02zu pc %016lx", frame.num,
                                  Address(frame.rel_pc));
  if (frame.map_elf_start_offset != 0) {
    text += StringPrintf(" (offset 0x%lx)", Address(frame.map_elf_start_offset));
  }
  return text + MapPart(frame) + FunctionPart(frame);
}
