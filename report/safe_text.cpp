#include "safe_text.h"

#include <algorithm>
#include <cstdint>

namespace report {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

struct Decoded {
  uint32_t code = 0;
  size_t length = 0;  // 0 when the text does not begin with a UTF-8 sequence
};

// The ranges are those of the Unicode standard's table of well-formed sequences.
Decoded DecodeFirst(std::string_view text) {
  const auto byte = [text](size_t i) {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u;
  };
  const unsigned lead = byte(0);
  if (lead < 0x80) return {lead, 1};
  const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4) return {};
  const unsigned low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
  const unsigned high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
  if (byte(1) < low || byte(1) > high) return {};
  uint32_t code = (lead & (0x7Fu >> length)) << 6 | (byte(1) & 0x3F);
  for (size_t i = 2; i < length; ++i) {
    if (byte(i) < 0x80 || byte(i) > 0xBF) return {};
    code = code << 6 | (byte(i) & 0x3F);
  }
  return {code, length};
}

bool IsHarmful(uint32_t code) {
  const bool control = code < 0x20 || (code >= 0x7F && code < 0xA0);
  const bool line_separator = code == 0x2028 || code == 0x2029;
  const bool direction = code == 0x200E || code == 0x200F || code == 0x061C ||
                         (code >= 0x202A && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069);
  return control || line_separator || direction;
}

}  // namespace

bool IsPlainAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7F; });
}

std::string SafeText(std::string_view text) {
  std::string safe;
  safe.reserve(text.size());
  while (!text.empty()) {
    const Decoded first = DecodeFirst(text);
    if (first.length == 0 || (IsHarmful(first.code) && first.code != '\t')) {
      safe += kReplacement;
    } else if (first.code == '\t') {
      safe += ' ';
    } else {
      safe += text.substr(0, first.length);
    }
    text.remove_prefix(std::max<size_t>(first.length, 1));
  }
  return safe;
}

}  // namespace report
