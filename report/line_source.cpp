#include "line_source.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

namespace report {
namespace {
constexpr size_t kBufferSize = 1024 * 1024;
static_assert(kBufferSize > LineSource::kMaxLine);
}  // namespace

LineSource::LineSource(int fd, std::string* raw)
    : fd_(fd), raw_(raw), buffer_(new char[kBufferSize]) {}

// Reads more behind what is still unread. False when there is nothing more.
bool LineSource::Fill() {
  if (at_end_) return false;
  memmove(buffer_.get(), buffer_.get() + begin_, end_ - begin_);
  end_ -= begin_;
  begin_ = 0;
  ssize_t count;
  do {
    count = read(fd_, buffer_.get() + end_, kBufferSize - end_);
  } while (count == -1 && errno == EINTR);
  if (count <= 0) {
    at_end_ = true;
    error_ = count == 0 ? 0 : errno;
    return false;
  }
  if (raw_ != nullptr) raw_->append(buffer_.get() + end_, static_cast<size_t>(count));
  end_ += static_cast<size_t>(count);
  bytes_read_ += static_cast<uint64_t>(count);
  return true;
}

bool LineSource::Next(Line* line) {
  const auto find_end = [this](size_t from) {
    return static_cast<const char*>(memchr(buffer_.get() + from, '\n', end_ - from));
  };
  const char* line_end = find_end(begin_);
  while (line_end == nullptr && end_ - begin_ <= kMaxLine) {
    const size_t seen = end_ - begin_;
    if (!Fill()) break;
    line_end = find_end(seen);
  }
  if (line_end == nullptr && begin_ == end_) return false;
  ++line_number_;
  const char* const text = buffer_.get() + begin_;
  const size_t length = line_end != nullptr ? static_cast<size_t>(line_end - text) : end_ - begin_;
  const bool too_long = length > kMaxLine;
  *line = {too_long ? std::string_view() : std::string_view(text, length), line_end != nullptr,
           too_long};
  begin_ += length + (line_end != nullptr ? 1 : 0);
  if (too_long && line_end == nullptr) line->ended = SkipLine();
  if (!line->text.empty() && line->text.back() == '\r') line->text.remove_suffix(1);
  return true;
}

// Skips what is left of a line. False when the file ends in it.
bool LineSource::SkipLine() {
  for (;;) {
    begin_ = end_;
    if (!Fill()) return false;
    const void* const line_end = memchr(buffer_.get() + begin_, '\n', end_ - begin_);
    if (line_end == nullptr) continue;
    begin_ = static_cast<size_t>(static_cast<const char*>(line_end) - buffer_.get()) + 1;
    return true;
  }
}

}  // namespace report
