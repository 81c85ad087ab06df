// The text of a frame of any content: its parts are all there, in their order, and nothing else.

#include "fuzz.h"
#include "unwind/unwindstack_wrapper.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input{data, size};
  unwindstack::FrameData frame;
  frame.num = input.Take<uint16_t>();
  frame.rel_pc = input.Take<uint64_t>();
  frame.map_elf_start_offset = input.Take<uint32_t>();
  frame.map_start = input.Take<uint64_t>();
  const bool mapped = input.Take<uint8_t>() % 2 == 0;
  frame.map_end = frame.map_start + mapped;
  frame.function_offset = input.Take<uint64_t>();
  const std::string map_name = input.TakeText(), function = input.TakeText();
  frame.map_name = map_name;
  frame.function_name = function;

  unwindstack_wrapper unwinder;
  unwinder.is_32bit = input.Take<uint8_t>() % 2 != 0;
  unwinder.frames = {frame};
  unwinder.num_frames = 1;
  std::string text = unwinder.frame_string(0);
  const auto take = [&text](const std::string& part) {
    const bool there = text.compare(0, part.size(), part) == 0;
    if (there) text.erase(0, part.size());
    return there;
  };
  char head[64];
  snprintf(head, sizeof(head), "  #%02zu pc %0*lx", frame.num, unwinder.is_32bit ? 8 : 16,
           frame.rel_pc);
  CLAIM(take(head));
  if (frame.map_elf_start_offset != 0) CLAIM(take(" (offset 0x"));
  if (frame.map_elf_start_offset != 0) text.erase(0, text.find(')') + 1);
  CLAIM(take(!mapped ? "  <unknown>" : map_name.empty() ? "  <anonymous:" : "  " + map_name));
  if (mapped && map_name.empty()) text.erase(0, text.find('>') + 1);
  if (!function.empty()) {
    CLAIM(take(" (" + function) && text.back() == ')');
    CLAIM(take(")") == (frame.function_offset == 0));
    text.clear();
  }
  CLAIM(text.empty() && unwinder.frame_string(1).empty());
  return 0;
}
