// The Android log on stderr. Runs in signal handlers, on threads that hold any lock: what it needs
// comes from a few static slots, or from the kernel when they are all taken.

#include <android/log.h>
#include <errno.h>
#include <poll.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "local_time.h"

namespace {

constexpr size_t kTextSize = 8192;
constexpr size_t kOutputSize = 16384;
constexpr size_t kPrefixSize = 128;
constexpr int kSlots = 4;

// One message on its way: its text, and the lines made of it.
struct Slot {
  std::atomic<bool> taken;
  char text[kTextSize];
  char output[kOutputSize];
};
Slot g_slots[kSlots];

std::atomic<__android_logger_function> g_logger{nullptr};

Slot* TakeSlot() {
  for (Slot& slot : g_slots) {
    if (!slot.taken.exchange(true, std::memory_order_acquire)) return &slot;
  }
  void* memory =
      mmap(nullptr, sizeof(Slot), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return memory == MAP_FAILED ? nullptr : static_cast<Slot*>(memory);
}

void GiveBack(Slot* slot) {
  if (slot >= g_slots && slot < g_slots + kSlots) {
    slot->taken.store(false, std::memory_order_release);
  } else {
    munmap(slot, sizeof(Slot));
  }
}

char LetterOf(int priority) {
  constexpr char kLetters[] = "??VDIWEF";
  return priority >= 0 && priority <= ANDROID_LOG_FATAL ? kLetters[priority] : '?';
}

// A decimal number of at least width characters. Formatting by printf would take longer than all
// the rest of a message.
char* AppendNumber(char* out, int value, int width, char fill) {
  char digits[16];
  int length = 0;
  do {
    digits[length++] = static_cast<char>('0' + value % 10);
    value /= 10;
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

// As in "11-22 19:10:00.123  1234  1240 E QUORVEL : "; returns its length.
size_t FormatPrefix(const __android_log_message& message, char (&prefix)[kPrefixSize]) {
  struct timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  const struct tm local = LocalTimeAt(now.tv_sec);
  const int milliseconds = static_cast<int>(now.tv_nsec / 1'000'000);
  const struct {
    int value;
    int width;
    char separator;
  } numbers[] = {{local.tm_mon + 1, 2, '-'}, {local.tm_mday, 2, ' '}, {local.tm_hour, 2, ':'},
                 {local.tm_min, 2, ':'},     {local.tm_sec, 2, '.'},  {milliseconds, 3, ' '}};
  char* out = prefix;
  for (const auto& number : numbers) {
    out = AppendNumber(out, number.value, number.width, '0');
    *out++ = number.separator;
  }
  for (const int id : {getpid(), gettid()}) {
    out = AppendNumber(out, id, 5, ' ');
    *out++ = ' ';
  }
  *out++ = LetterOf(message.priority);
  *out++ = ' ';
  out = AppendText(out, message.tag != nullptr ? message.tag : "", 8, 64);
  out = AppendText(out, ": ", 2, 2);
  return static_cast<size_t>(out - prefix);
}

// A write to a pipe that nobody reads any more would raise a signal in the host process, which the
// device's log never does.
bool SomebodyReads() {
  struct pollfd descriptor = {STDERR_FILENO, 0, 0};
  struct timespec at_once = {0, 0};
  syscall(SYS_ppoll, &descriptor, 1, &at_once, nullptr, 0);
  return (descriptor.revents & (POLLERR | POLLNVAL)) == 0;
}

// Since Linux 6.18 a write can do without the signal, which spares the question. Where that is
// refused once, for the kernel's age, a filter or the kind of file, it is not tried again. By the
// kernel's own calls: the C library's are points where a thread may be cancelled.
long WriteWithoutSignal(const char* data, size_t length) {
  constexpr int kNoSignal = 0x100;  // RWF_NOSIGNAL, which no header of this age declares
  static std::atomic<bool> refused{false};
  if (!refused.load(std::memory_order_relaxed)) {
    const struct iovec piece = {const_cast<char*>(data), length};
    const long written = syscall(SYS_pwritev2, STDERR_FILENO, &piece, 1, -1L, -1L, kNoSignal);
    if (written != -1 || errno == EINTR || errno == EAGAIN || errno == EPIPE) return written;
    refused.store(true, std::memory_order_relaxed);
  }
  return SomebodyReads() ? syscall(SYS_write, STDERR_FILENO, data, length) : 0;
}

void WriteAll(const char* data, size_t length) {
  while (length > 0) {
    const long written = WriteWithoutSignal(data, length);
    if (written == -1 && errno == EINTR) continue;
    if (written <= 0) return;
    data += written;
    length -= static_cast<size_t>(written);
  }
}

// Gathers lines and writes them at the end: in one write, unless there are more than fit.
class Output {
 public:
  explicit Output(char* buffer) : buffer_(buffer) {}
  ~Output() { WriteAll(buffer_, used_); }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  void Append(const char* data, size_t length) {
    while (length > 0) {
      if (used_ == kOutputSize) {
        WriteAll(buffer_, used_);
        used_ = 0;
      }
      const size_t part = std::min(length, kOutputSize - used_);
      memcpy(buffer_ + used_, data, part);
      used_ += part;
      data += part;
      length -= part;
    }
  }

 private:
  char* buffer_;
  size_t used_ = 0;
};

void WriteLines(const __android_log_message& message, char* buffer) {
  char prefix[kPrefixSize];
  const size_t prefix_length = FormatPrefix(message, prefix);
  Output output(buffer);
  const char* line = message.message;
  do {
    const char* end = strchrnul(line, '\n');
    output.Append(prefix, prefix_length);
    output.Append(line, static_cast<size_t>(end - line));
    output.Append("\n", 1);
    line = *end == '\n' ? end + 1 : end;
  } while (*line != '\0');
}

void Deliver(const __android_log_message& message, Slot* slot) {
  if (const __android_logger_function logger = g_logger.load(std::memory_order_acquire)) {
    logger(&message);
  } else {
    WriteLines(message, slot->output);
  }
}

}  // namespace

// Fills in the text of a message. False when it cannot be formatted.
static bool FormatText(Slot* slot, const char* fmt, va_list args) {
  const int length = vsnprintf(slot->text, sizeof(slot->text), fmt, args);
  if (length >= static_cast<int>(sizeof(slot->text))) {
    memcpy(slot->text + sizeof(slot->text) - sizeof("..."), "...", sizeof("..."));
  }
  return length >= 0;
}

int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
  const int saved_errno = errno;
  Slot* slot = TakeSlot();
  if (slot == nullptr) return -ENOMEM;
  va_list args;
  va_start(args, fmt);
  __android_log_message message = {sizeof(message), 0, prio, tag, nullptr, 0, slot->text};
  bool formatted = true;
  if (strcmp(fmt, "%s") == 0) {
    message.message = va_arg(args, const char*);
  } else {
    formatted = FormatText(slot, fmt, args);
  }
  va_end(args);
  if (formatted) Deliver(message, slot);
  GiveBack(slot);
  errno = saved_errno;
  return formatted ? 1 : -EINVAL;
}

void __android_log_write_log_message(struct __android_log_message* log_message) {
  const int saved_errno = errno;
  if (Slot* slot = TakeSlot()) {
    Deliver(*log_message, slot);
    GiveBack(slot);
  }
  errno = saved_errno;
}

void __android_log_set_logger(__android_logger_function logger) {
  g_logger.store(logger, std::memory_order_release);
}
