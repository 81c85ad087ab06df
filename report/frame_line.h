// Parses the line of a frame.
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

// Removes the number from the start of a frame's line; the rest, from the pc on, is equal for equal
// frames. False when the line is not that of a frame.
bool TakeFrameNumber(std::string_view* line, unsigned* number);

// Reads what TakeFrameNumber left: "HEX[ (offset 0xHEX)]  MAP[ (FUNCTION[+N])]". A map may hold
// spaces, parentheses, and end in " (deleted)". Nothing when it has another form.
std::optional<FrameLine> ParseFrameRest(std::string_view rest);

}  // namespace report
