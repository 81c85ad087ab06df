#include "input_files.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>

#include "safe_text.h"

namespace report {
namespace {

namespace fs = std::filesystem;

bool IsLogName(const std::string& name) {
  constexpr std::string_view kPrefix = "quorvel@", kSuffix = ".log";
  return name.size() > kPrefix.size() + kSuffix.size() &&
         name.compare(0, kPrefix.size(), kPrefix) == 0 &&
         name.compare(name.size() - kSuffix.size(), kSuffix.size(), kSuffix) == 0;
}

void AddDirectory(const fs::path& directory, bool recursive, Inputs* inputs) {
  std::error_code error;
  fs::directory_iterator entry(directory, error);
  std::vector<fs::path> logs, directories;
  for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
    std::error_code ignored;
    if (entry->is_directory(ignored) && !entry->is_symlink(ignored)) {
      directories.push_back(entry->path());
    } else if (IsLogName(entry->path().filename().string())) {
      if (entry->is_regular_file(ignored)) {
        logs.push_back(entry->path());
      } else {  // reading a pipe of that name would block
        inputs->errors.push_back(SafeText(entry->path().string()) + ":0: not a regular file");
      }
    }
  }
  if (error) {
    inputs->errors.push_back(
        fmt::format("{}:0: cannot list: {}", SafeText(directory.string()), error.message()));
  }
  std::sort(logs.begin(), logs.end());
  for (const fs::path& log : logs) inputs->files.push_back(log.string());
  if (!recursive) return;
  std::sort(directories.begin(), directories.end());
  for (const fs::path& inner : directories) AddDirectory(inner, recursive, inputs);
}

}  // namespace

Inputs FindLogs(const std::vector<std::string>& paths, bool recursive) {
  Inputs inputs;
  for (const std::string& path : paths) {
    std::error_code error;
    if (path != "-" && fs::is_directory(path, error)) {
      AddDirectory(path, recursive, &inputs);
    } else {
      inputs.files.push_back(path);  // opening it tells what is wrong with it
    }
  }
  for (const std::string& file : inputs.files) {
    std::error_code error;
    const uint64_t size = fs::is_regular_file(file, error) ? fs::file_size(file, error) : 0;
    if (!error) inputs.bytes += size;
  }
  return inputs;
}

}  // namespace report
