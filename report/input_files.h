// The logs that a call names.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace report {

struct Inputs {
  std::vector<std::string> files;   // "-" is the standard input
  std::vector<std::string> errors;  // one for each path that could not be followed
  uint64_t bytes = 0;               // of all files together, where it is known
};

// Follows paths: a file is itself, a directory its "quorvel@*.log" in the order of their names,
// with recursive also those below it.
Inputs FindLogs(const std::vector<std::string>& paths, bool recursive);

}  // namespace report
