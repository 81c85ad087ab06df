// The call's options.
#pragma once

#include <string>
#include <vector>

#include "json_output.h"

namespace report {

enum class Format { kText, kJson, kRows, kFolded, kNdk, kHtml };
enum class Colour { kAuto, kAlways, kNever };

struct Options {
  std::vector<std::string> paths;
  bool recursive = false;
  bool all = false;
  Format format = Format::kText;
  std::string html_file;
  std::vector<std::string> symbol_directories;
  Labels labels;
  Colour colour = Colour::kAuto;
  size_t top = 20;
};

constexpr int kExitWrongCall = 2;

// Reads the call. False when the program is to end at once with that status: after a wrong call,
// which was explained on stderr, or after --help or --version.
bool ParseOptions(int argc, char** argv, Options* options, int* exit_status);

}  // namespace report
