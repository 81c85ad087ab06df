// A raw log as the page holds it: deflated, in base64.
#pragma once

#include <string>
#include <string_view>

namespace report {

// The bytes in zlib's format, in base64. Empty when there is no memory for it.
std::string PackLog(std::string_view raw);

}  // namespace report
