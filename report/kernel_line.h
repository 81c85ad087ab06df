// Parses a line of a kernel stack.
#pragma once

#include <optional>
#include <string_view>

namespace report {

struct KernelLine {
  std::string_view frame;  // "function+0x1/0x2"; a wait channel's bare name; may be empty
  char state = '\0';       // the thread's, where the line tells it in place of a stack
};

// Reads "[<0>] function+0x1/0x2", also without the address, and the line that replaces a stack
// which could not be read: "[no kernel stack: why] state S, wait channel NAME". Nothing when the
// line is neither, or may be cut within the function's name.
std::optional<KernelLine> ParseKernelLine(std::string_view text, bool may_be_cut);

// The function of a frame, without offset, module and the suffixes of its copies.
std::string_view KernelFunction(std::string_view frame);

}  // namespace report
