// The text of a frame.

#include <android-base/stringprintf.h>

#include "unwind/frame_fields.h"
#include "unwind/unwindstack_wrapper.h"

namespace {

using android::base::StringPrintf;

// The platform's unwinding library counts addresses in 64 bits whatever the architecture.
unsigned long Address(uint64_t value) {
  return static_cast<unsigned long>(value);
}

void AppendMap(const FrameFields& frame, std::string* text) {
  if (frame.map_start == frame.map_end) {
    *text += "  <unknown>";
  } else if (frame.map_name.empty()) {
    *text += StringPrintf("  <anonymous:%lx>", Address(frame.map_start));
  } else {
    *text += "  ";
    *text += frame.map_name;
  }
}

void AppendFunction(const FrameFields& frame, std::string* text) {
  if (frame.function_name.empty()) return;
  *text += " (";
  *text += frame.function_name;
  if (frame.function_offset != 0) {
    *text += '+';
    *text += std::to_string(static_cast<long>(frame.function_offset));
  }
  *text += ')';
}

}  // namespace

std::string FrameText(const FrameFields& frame, bool is_32bit) {
  constexpr size_t kUsualLength = 160;
  std::string text;
  text.reserve(kUsualLength);
  text += StringPrintf(is_32bit ? "  #%02zu pc %08lx" : "  #%02zu pc %016lx", frame.num,
                       Address(frame.rel_pc));
  if (frame.map_elf_start_offset != 0) {
    text += StringPrintf(" (offset 0x%lx)", Address(frame.map_elf_start_offset));
  }
  AppendMap(frame, &text);
  AppendFunction(frame, &text);
  return text;
}

std::string unwindstack_wrapper::frame_string(size_t frame_num) {
  if (frame_num >= num_frames) return "";
  return FrameText(MakeFrameFields(frames[frame_num]), is_32bit);
}
