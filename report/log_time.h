// Times as logs and file names spell them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace report {

// "Sun Nov 22 21:13:48 2026", as ctime writes it, in seconds since the epoch as if it were UTC.
std::optional<int64_t> ParseClockText(std::string_view text);

// The milliseconds since the epoch in "quorvel@1763315480007.log", with or without a directory.
std::optional<int64_t> ParseFileTime(std::string_view path);

// "2026-11-22T21:13:48" of seconds since the epoch.
std::string IsoText(int64_t seconds);

// "2026-11-22T21:13:48.123Z" of milliseconds since the epoch.
std::string IsoUtcText(int64_t milliseconds);

}  // namespace report
