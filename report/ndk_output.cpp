#include "ndk_output.h"

#include <fmt/format.h>

namespace report {
namespace {

// The tools begin a new process at each such line.
constexpr std::string_view kBanner =
    "*** *** *** *** *** *** *** *** *** *** *** *** *** *** *** ***";

std::string FrameText(size_t number, const Frame& frame) {
  std::string text =
      fmt::format("  #{:02} pc {:0{}x}  {}", number, frame.pc, frame.pc_digits, frame.map);
  if (frame.offset != 0) text += fmt::format(" (offset 0x{:x})", frame.offset);
  if (frame.symbol.empty()) return text;
  if (frame.function_offset == 0) return text + fmt::format(" ({})", frame.symbol);
  return text + fmt::format(" ({}+{})", frame.symbol, frame.function_offset);
}

}  // namespace

void WriteNdk(const Incident& incident, std::ostream* out) {
  for (const Thread& thread : incident.threads) {
    if (thread.user.empty()) continue;
    *out << '\n' << kBanner << '\n';
    *out << fmt::format("tid: {}, name: {}  >>> {} <<<\n", thread.tid,
                        thread.watched ? "watched" : "other", incident.program.value_or("unknown"));
    for (size_t i = 0; i < thread.user.size(); ++i) *out << FrameText(i, *thread.user[i]) << '\n';
  }
}

}  // namespace report
