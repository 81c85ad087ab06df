#include "frame_line.h"

#include <charconv>

namespace report {
namespace {

constexpr size_t kPcDigits32 = 8;
constexpr size_t kPcDigits64 = 16;

bool TakePrefix(std::string_view* text, std::string_view prefix) {
  if (text->substr(0, prefix.size()) != prefix) return false;
  text->remove_prefix(prefix.size());
  return true;
}

// Removes a number from the start of the text. Returns its count of digits: 0 when there is none or
// it overflows.
template <typename Number>
size_t TakeNumber(std::string_view* text, int base, Number* value) {
  const auto [end, error] =
      std::from_chars(text->data(), text->data() + text->size(), *value, base);
  if (error != std::errc()) return 0;
  const auto digits = static_cast<size_t>(end - text->data());
  text->remove_prefix(digits);
  return digits;
}

// The position of the " (" whose parenthesis the last character closes; npos if there is none.
size_t FindFunctionPart(std::string_view text) {
  if (text.empty() || text.back() != ')') return text.npos;
  int depth = 0;
  for (size_t i = text.size(); i-- > 1;) {
    if (text[i] == ')') ++depth;
    if (text[i] == '(' && --depth == 0) {
      if (text[i - 1] == ' ') return i - 1;
      break;
    }
  }
  return text.rfind(" (");  // a name with parentheses that do not match
}

void TakeFunctionOffset(FrameLine* frame) {
  const size_t plus = frame->function.rfind('+');
  if (plus == frame->function.npos || plus == 0) return;
  std::string_view digits = frame->function.substr(plus + 1);
  uint64_t offset = 0;
  if (TakeNumber(&digits, 10, &offset) == 0 || !digits.empty()) return;
  frame->function_offset = offset;
  frame->function = frame->function.substr(0, plus);
}

}  // namespace

bool TakeFrameNumber(std::string_view* line, unsigned* number) {
  std::string_view rest = *line;
  while (TakePrefix(&rest, " ")) {
  }
  if (!TakePrefix(&rest, "#") || TakeNumber(&rest, 10, number) == 0 || !TakePrefix(&rest, " pc ")) {
    return false;
  }
  *line = rest;
  return true;
}

std::optional<FrameLine> ParseFrameRest(std::string_view rest) {
  FrameLine frame;
  const size_t digits = TakeNumber(&rest, 16, &frame.pc);
  if (digits != kPcDigits32 && digits != kPcDigits64) return std::nullopt;
  frame.pc_digits = static_cast<uint8_t>(digits);
  if (TakePrefix(&rest, " (offset 0x") &&
      (TakeNumber(&rest, 16, &frame.offset) == 0 || !TakePrefix(&rest, ")"))) {
    return std::nullopt;
  }
  if (!TakePrefix(&rest, "  ") || rest.empty()) return std::nullopt;
  const size_t part = FindFunctionPart(rest);
  frame.map = rest;
  if (part == rest.npos || part == 0) return frame;
  const std::string_view function = rest.substr(part + 2, rest.size() - part - 3);
  if (function == "deleted" || function.empty()) return frame;  // the kernel's word about the map
  frame.map = rest.substr(0, part);
  frame.function = function;
  TakeFunctionOffset(&frame);
  return frame;
}

}  // namespace report
