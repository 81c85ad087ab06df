// Replaces a file as a whole or not at all.
#pragma once

#include <string>
#include <string_view>

namespace report {

class ReplacedFile {
 public:
  // Begins a new file beside path. Where that fails, Commit tells why.
  explicit ReplacedFile(const std::string& path);
  ~ReplacedFile();  // discards what was not committed
  ReplacedFile(const ReplacedFile&) = delete;
  ReplacedFile& operator=(const ReplacedFile&) = delete;

  // Adds text. After the first failure it does nothing more.
  void Write(std::string_view text);

  // Makes what was written the file at path, with the permissions of the file that it replaces.
  // False, with the failed call and its reason, when any call since the beginning failed: then the
  // file at path is as it was.
  bool Commit(std::string* error);

 private:
  bool Resolve(const std::string& path);
  void Flush();
  void Fail(const char* call, const std::string& file);

  std::string target_;     // path, with symbolic links followed
  std::string temporary_;  // empty when there is none to remove
  std::string buffer_;
  std::string error_;
  int fd_ = -1;
};

}  // namespace report
