// The line of a frame, taken apart.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace report {

struct FrameLine {
  uint8_t pc_digits = 0;
  uint64_t pc = 0;
  uint64_t offset = 0;
  std::string_view map;
  std::string_view function;  // empty when the line has none
  uint64_t function_offset = 0;
};

// Takes the number off a frame's line; what is left, from the pc on, is equal for equal frames.
// False when the line is none of a frame.
bool TakeFrameNumber(std::string_view* line, unsigned* number);

// Reads what TakeFrameNumber left: "HEX[ (offset 0xHEX)]  MAP[ (FUNCTION[+N])]". A map may hold
// spaces, parentheses, and end in " (deleted)". Nothing where it is not of that form.
std::optional<FrameLine> ParseFrameRest(std::string_view rest);

}  // namespace report
