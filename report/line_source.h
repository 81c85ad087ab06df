// Reads a file line by line in constant memory.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace report {

class LineSource {
 public:
  static constexpr size_t kMaxLine = 64 * 1024;  // longer lines are skipped

  struct Line {
    std::string_view text;  // without its end; valid until the next call
    bool ended = true;      // false: the file ends without a new line
    bool too_long = false;  // its text is left out
  };

  // Reads from fd, which stays the caller's. Where raw is given, all bytes are appended to it.
  explicit LineSource(int fd, std::string* raw = nullptr);

  // False at the end of the file or when reading fails: see error().
  bool Next(Line* line);

  uint64_t line_number() const { return line_number_; }  // of the line that Next gave last, from 1
  uint64_t bytes_read() const { return bytes_read_; }
  int error() const { return error_; }  // an errno, or 0

 private:
  bool Fill();
  bool SkipLine();

  int fd_;
  std::string* raw_;
  std::unique_ptr<char[]> buffer_;
  size_t begin_ = 0;
  size_t end_ = 0;
  bool at_end_ = false;
  int error_ = 0;
  uint64_t line_number_ = 0;
  uint64_t bytes_read_ = 0;
};

}  // namespace report
