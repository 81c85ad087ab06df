// A frame of the platform's unwinding library as plain fields.
//
// Up to release 12.1 of the platform a frame holds its mapping's fields itself; from 13 on it
// reaches them through map_info, which is null where no mapping holds the pc. The shape is detected
// here, by what the frame's type has, and nowhere else.
#ifndef QUORVEL_UNWIND_FRAME_FIELDS_H_
#define QUORVEL_UNWIND_FRAME_FIELDS_H_

#include <cstddef>
#include <cstdint>
#include <string>

struct FrameFields {
  size_t num = 0;
  uint64_t rel_pc = 0;  // relative to the frame's ELF file
  std::string function_name;
  uint64_t function_offset = 0;
  // The mapping; start and end are equal when there is none.
  std::string map_name;
  uint64_t map_start = 0;
  uint64_t map_end = 0;
  uint64_t map_elf_start_offset = 0;
};

namespace frame_fields {

// Chosen where the frame has a map_info, as the better match for the 0 that MakeFrameFields gives.
template <typename Frame>
auto CopyMapping(const Frame& frame, FrameFields* fields, int) -> decltype(void(frame.map_info)) {
  if (frame.map_info == nullptr) return;
  fields->map_name = frame.map_info->name().c_str();
  fields->map_start = frame.map_info->start();
  fields->map_end = frame.map_info->end();
  fields->map_elf_start_offset = frame.map_info->elf_start_offset();
}

template <typename Frame>
auto CopyMapping(const Frame& frame, FrameFields* fields, long) -> decltype(void(frame.map_start)) {
  fields->map_name = frame.map_name.c_str();
  fields->map_start = frame.map_start;
  fields->map_end = frame.map_end;
  fields->map_elf_start_offset = frame.map_elf_start_offset;
}

}  // namespace frame_fields

// Allocates: no thread may be stopped meanwhile.
template <typename Frame>
FrameFields MakeFrameFields(const Frame& frame) {
  FrameFields fields;
  fields.num = frame.num;
  fields.rel_pc = frame.rel_pc;
  fields.function_name = frame.function_name.c_str();
  fields.function_offset = frame.function_offset;
  frame_fields::CopyMapping(frame, &fields, 0);
  return fields;
}

// The line of a frame, without its end.
std::string FrameText(const FrameFields& frame, bool is_32bit);

#endif  // QUORVEL_UNWIND_FRAME_FIELDS_H_
