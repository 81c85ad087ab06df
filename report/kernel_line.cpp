#include "kernel_line.h"

#include <cctype>

namespace report {
namespace {

std::optional<KernelLine> ParseStateLine(std::string_view text, bool may_be_cut) {
  static constexpr std::string_view kState = "] state ";
  static constexpr std::string_view kChannel = ", wait channel ";
  static constexpr std::string_view kNone = "not shown";
  const size_t state = text.find(kState);
  if (state == text.npos || state + kState.size() >= text.size()) return std::nullopt;
  KernelLine line;
  line.state = text[state + kState.size()];
  if (isalpha(static_cast<unsigned char>(line.state)) == 0) line.state = '?';
  const std::string_view rest = text.substr(state + kState.size() + 1);
  if (rest.substr(0, kChannel.size()) == kChannel && !may_be_cut) {
    line.frame = rest.substr(kChannel.size());
    if (line.frame == kNone) line.frame = {};
  }
  return line;
}

bool IsNameCharacter(char c) {
  return isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '.' || c == '$';
}

}  // namespace

std::optional<KernelLine> ParseKernelLine(std::string_view text, bool may_be_cut) {
  if (text.substr(0, 16) == "[no kernel stack") return ParseStateLine(text, may_be_cut);
  const size_t first = text.find_first_not_of(' ');
  if (first == text.npos) return KernelLine();
  text.remove_prefix(first);
  if (text.substr(0, 2) == "[<") {
    const size_t end = text.find(">] ");
    if (end == text.npos) return std::nullopt;
    text.remove_prefix(end + 3);
  }
  size_t name = 0;
  while (name < text.size() && IsNameCharacter(text[name])) ++name;
  if (name == 0 || (may_be_cut && text.find('/', name) == text.npos)) return std::nullopt;
  const std::string_view tail = text.substr(name);
  const bool offset = tail.substr(0, 3) == "+0x";
  if (!tail.empty() && !offset && tail.substr(0, 2) != " [") return std::nullopt;
  return KernelLine{text, '\0'};
}

std::string_view KernelFunction(std::string_view frame) {
  size_t end = 0;
  while (end < frame.size() && IsNameCharacter(frame[end])) ++end;
  const std::string_view name = frame.substr(0, end);
  const size_t dot = name.find('.');  // ".isra.0" and its like; no function of C has a dot
  return dot == name.npos || dot == 0 ? name : name.substr(0, dot);
}

}  // namespace report
