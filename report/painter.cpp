#include "painter.h"

#include <fmt/format.h>

#include <algorithm>

namespace report {
namespace {

constexpr std::string_view kEllipsis = "\xE2\x80\xA6";

bool ContinuesCharacter(char c) {
  return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// The bytes of the first so many characters.
size_t BytesOf(std::string_view text, size_t characters) {
  size_t bytes = 0;
  while (bytes < text.size() && (characters > 0 || ContinuesCharacter(text[bytes]))) {
    if (!ContinuesCharacter(text[bytes])) --characters;
    ++bytes;
  }
  return bytes;
}

}  // namespace

std::string Painter::Paint(std::string_view code, std::string_view text) const {
  if (!colours_ || text.empty()) return std::string(text);
  return fmt::format("\x1b[{}m{}\x1b[0m", code, text);
}

size_t WidthOf(std::string_view text) {
  return static_cast<size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return !ContinuesCharacter(c); }));
}

std::string Shortened(std::string_view text, size_t width) {
  if (WidthOf(text) <= width) return std::string(text);
  if (width == 0) return "";
  return std::string(text.substr(0, BytesOf(text, width - 1))) + std::string(kEllipsis);
}

std::string ShortenedInFront(std::string_view text, size_t width) {
  const size_t all = WidthOf(text);
  if (all <= width) return std::string(text);
  if (width == 0) return "";
  return std::string(kEllipsis) + std::string(text.substr(BytesOf(text, all - width + 1)));
}

std::string Padded(std::string_view text, size_t width) {
  std::string padded = Shortened(text, width);
  return padded + std::string(width - std::min(width, WidthOf(padded)), ' ');
}

}  // namespace report
