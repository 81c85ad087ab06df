// The Android log on standard error. It runs in signal handlers and on threads that hold any lock,
// so it keeps everything on the stack; a message of few lines takes some 3 KiB with its formatting.

#include <android/log.h>
#include <errno.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <numeric>

#include "fork_child.h"
#include "local_time.h"
#include "standard_error.h"

namespace {

constexpr size_t kMaxText = 1023;  // as the device's log has it
constexpr size_t kMaxTag = 64;
constexpr size_t kMinTag = 8;
constexpr int kMinIdWidth = 5;
constexpr size_t kPrefixSize = 128;
constexpr unsigned kFewLines = 4;
constexpr unsigned kMaxLinesPerWrite = 64;  // more do not fit into one piece with their prefixes
constexpr int64_t kNanosPerMilli = 1'000'000;
constexpr unsigned kDecimalBase = 10;

std::atomic<__android_logger_function> g_logger{nullptr};

char LetterOf(int priority) {
  constexpr char kLetters[] = "??VDIWEF";
  return priority >= 0 && priority <= ANDROID_LOG_FATAL ? kLetters[priority] : '?';
}

// Appends a decimal number of at least width characters. Formatting it by printf would take longer
// than all the rest of a message.
char* AppendNumber(char* out, unsigned value, int width, char fill) {
  char digits[16];
  int length = 0;
  do {
    digits[length++] = static_cast<char>('0' + value % kDecimalBase);
    value /= kDecimalBase;
  } while (value != 0);
  while (length < width) digits[length++] = fill;
  while (length > 0) *out++ = digits[--length];
  return out;
}

char* AppendText(char* out, const char* text, size_t min_length, size_t max_length) {
  const size_t length = strnlen(text, max_length);
  memcpy(out, text, length);
  memset(out + length, ' ', min_length > length ? min_length - length : 0);
  return out + std::max(length, min_length);
}

char* AppendTime(char* out) {
  struct timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  const struct tm local = LocalTimeAt(now.tv_sec);
  const int milliseconds = static_cast<int>(now.tv_nsec / kNanosPerMilli);
  const struct {
    int value;
    int width;
    char separator;
  } numbers[] = {{local.tm_mon + 1, 2, '-'}, {local.tm_mday, 2, ' '}, {local.tm_hour, 2, ':'},
                 {local.tm_min, 2, ':'},     {local.tm_sec, 2, '.'},  {milliseconds, 3, ' '}};
  for (const auto& number : numbers) {
    out = AppendNumber(out, static_cast<unsigned>(number.value), number.width, '0');
    *out++ = number.separator;
  }
  return out;
}

// What every line begins with, as in "11-22 19:10:00.123  1234  1240 E QUORVEL : ".
struct Prefix {
  char text[kPrefixSize];
  size_t length;

  Prefix(int priority, const char* tag) {
    char* out = AppendTime(text);
    for (const int id : {getpid(), gettid()}) {
      out = AppendNumber(out, static_cast<unsigned>(id), kMinIdWidth, ' ');
      *out++ = ' ';
    }
    *out++ = LetterOf(priority);
    *out++ = ' ';
    out = AppendText(out, tag != nullptr ? tag : "", kMinTag, kMaxTag);
    *out++ = ':';
    *out++ = ' ';
    length = static_cast<size_t>(out - text);
  }
};

// Lines that could not be written and have not been reported yet, and whether the last write ended
// within a line.
std::atomic<unsigned> g_discarded_lines{0};
std::atomic<bool> g_line_is_cut{false};

struct iovec PartOf(const char* data, size_t length) {
  return {const_cast<char*>(data), length};
}

// True when all of it was written.
bool WriteParts(struct iovec* parts, int count, bool may_wait) {
  const size_t size =
      std::accumulate(parts, parts + count, size_t{0},
                      [](size_t sum, const struct iovec& part) { return sum + part.iov_len; });
  const size_t written = WriteToStandardError(parts, count, may_wait);
  if (written > 0 && written < size) g_line_is_cut.store(true, std::memory_order_relaxed);
  return written == size;
}

// Says how many lines are missing at this place. False when that cannot be written either. It does
// not wait for a reader: the write before it has waited already.
bool ReportDiscardedLines(unsigned lines) {
  constexpr char kReport[] = " lines of this log were discarded: they could not be written\n";
  const Prefix prefix(ANDROID_LOG_WARN, "log");
  const bool line_is_cut = g_line_is_cut.exchange(false, std::memory_order_relaxed);
  char count[16];
  const size_t digits = static_cast<size_t>(AppendNumber(count, lines, 0, ' ') - count);
  struct iovec parts[] = {PartOf("\n", line_is_cut ? 1 : 0), PartOf(prefix.text, prefix.length),
                          PartOf(count, digits), PartOf(kReport, strlen(kReport))};
  const bool written = WriteParts(parts, static_cast<int>(std::size(parts)), false);
  if (!written && line_is_cut) g_line_is_cut.store(true, std::memory_order_relaxed);
  return written;
}

// Writes the lines, after a report of those that are missing before them, or counts them as missing
// too.
void WriteOrDiscard(struct iovec* parts, int count, unsigned lines) {
  const unsigned missing = g_discarded_lines.exchange(0, std::memory_order_relaxed);
  const bool reported = missing == 0 || ReportDiscardedLines(missing);
  if (reported && WriteParts(parts, count, true)) return;
  g_discarded_lines.fetch_add(reported ? lines : missing + lines, std::memory_order_relaxed);
}

// The lines of a message that go out in one piece: as many as fit.
template <unsigned kMaxLines>
class Piece {
 public:
  explicit Piece(const Prefix& prefix) : prefix_(prefix) {}

  // The line has its newline, unless it is the last. False, and nothing changes, when it does not
  // fit.
  bool Append(const char* line, size_t length) {
    const size_t size = prefix_.length + length;
    if (lines_ == kMaxLines || size_ + size + 1 > kMaxPiece) return false;
    parts_[count_++] = PartOf(prefix_.text, prefix_.length);
    parts_[count_++] = PartOf(line, length);
    size_ += size;
    ++lines_;
    return true;
  }

  void EndWithNewline() { parts_[count_++] = PartOf("\n", 1); }

  void Write() {
    if (lines_ > 0) WriteOrDiscard(parts_, count_, lines_);
    count_ = 0;
    size_ = 0;
    lines_ = 0;
  }

 private:
  const Prefix& prefix_;
  struct iovec parts_[2 * kMaxLines + 1];
  int count_ = 0;
  size_t size_ = 0;
  unsigned lines_ = 0;
};

// Not inlined, so that a message of few lines does not use the stack of one with many.
template <unsigned kMaxLines>
__attribute__((noinline)) void WriteLines(const Prefix& prefix, const char* line, const char* end) {
  Piece<kMaxLines> piece(prefix);
  do {
    const void* const newline = memchr(line, '\n', static_cast<size_t>(end - line));
    const char* const next = newline != nullptr ? static_cast<const char*>(newline) + 1 : end;
    const size_t length = static_cast<size_t>(next - line);
    if (!piece.Append(line, length)) {
      piece.Write();
      piece.Append(line, length);
    }
    if (newline == nullptr) piece.EndWithNewline();
    line = next;
  } while (line != end);
  piece.Write();
}

void WriteMessage(const __android_log_message& message) {
  const Prefix prefix(message.priority, message.tag);
  const char* const begin = message.message;
  const char* const end = begin + strnlen(begin, kMaxText);
  if (std::count(begin, end, '\n') < kFewLines) {
    WriteLines<kFewLines>(prefix, begin, end);
  } else {
    WriteLines<kMaxLinesPerWrite>(prefix, begin, end);
  }
}

void Deliver(const __android_log_message& message) {
  const int saved_errno = errno;
  if (const __android_logger_function logger = g_logger.load(std::memory_order_acquire)) {
    logger(&message);
  } else {
    WriteMessage(message);
  }
  errno = saved_errno;
}

}  // namespace

void ForgetDiscardedLinesInChild() {
  g_discarded_lines.store(0, std::memory_order_relaxed);
}

int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
  const int saved_errno = errno;
  char text[kMaxText + 1];
  va_list args;
  va_start(args, fmt);
  const int length = vsnprintf(text, sizeof(text), fmt, args);
  va_end(args);
  errno = saved_errno;
  if (length < 0) return -EINVAL;
  Deliver({sizeof(__android_log_message), 0, prio, tag, nullptr, 0, text});
  return 1;
}

void __android_log_write_log_message(struct __android_log_message* log_message) {
  Deliver(*log_message);
}

void __android_log_set_logger(__android_logger_function logger) {
  g_logger.store(logger, std::memory_order_release);
}
