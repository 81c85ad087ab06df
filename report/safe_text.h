// Makes untrusted text safe to show.
#pragma once

#include <string>
#include <string_view>

namespace report {

// True when the text is printable ASCII, which needs no change.
bool IsPlainAscii(std::string_view text);

// The text as valid UTF-8 without control characters. Bytes that are no UTF-8, control characters
// and those that change the direction of text become the replacement character; a tab, a space.
std::string SafeText(std::string_view text);

}  // namespace report
