#include "log/quorvel_log.h"

#include <android/log.h>
#include <errno.h>
#include <quorvel/quorvel.h>
#include <stdarg.h>
#include <string.h>
#include <unistd.h>

#include <atomic>

#include "base/bounds_checked.h"
#include "log/log_tag.h"

namespace {

constexpr size_t kLineSize = 1024;
constexpr size_t kMaxFormatted = kLineSize - 1;
constexpr size_t kMinLine = 2;
constexpr size_t kMaxLine = kLineSize - 2;  // leaves room for an added newline

char LogBuffer[kLogBufferSize];
std::atomic<int> LogFd{-1};
std::atomic<int> LogFlags{0};

// A line that does not fit is dropped whole, never cut; a shorter one may still fit later.
void CacheLine(const char* line, size_t length) {
  if (length + QuorvelLogLength() + 1 > kLogBufferSize) {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "log too long, drop '%s'", line);
    return;
  }
  if (QuorvelAppendLog(line, length) != 0) {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "%s: cannot strcat %s\n", __func__,
                        strerror(errno));
  }
}

}  // namespace

void QuorvelPrintLine(const char* fmt, ...) {
  char line[kLineSize] = {};
  if (fmt == nullptr) return;

  va_list args;
  va_start(args, fmt);
  const int formatted = vsnprintf_s(line, sizeof(line), kMaxFormatted, fmt, args);
  va_end(args);
  if (formatted < 0) {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "%s: cannot vsnprintf %d\n", __func__, errno);
    return;
  }
  size_t length = strlen(line);
  if (length < kMinLine || length > kMaxLine) return;

  __android_log_print(ANDROID_LOG_WARN, kLogTag, "%s", line);
  if (QuorvelGetLogFd() < 0) return;
  if (line[length - 1] != '\n') line[length++] = '\n';
  if ((static_cast<uint32_t>(QuorvelGetLogFlags()) & QUORVEL_FLAG_LOG) == 0) return;
  CacheLine(line, length);
}

void QuorvelBeginLog(int flags) {
  LogFlags.store(flags, std::memory_order_relaxed);
  QuorvelClearLog();
}

void QuorvelSetLogFd(int fd) {
  LogFd.store(fd, std::memory_order_relaxed);
}
int QuorvelGetLogFd() {
  return LogFd.load(std::memory_order_relaxed);
}
int QuorvelGetLogFlags() {
  return LogFlags.load(std::memory_order_relaxed);
}

void QuorvelClearLog() {
  memset_s(LogBuffer, sizeof(LogBuffer), 0, sizeof(LogBuffer));
}

const char* QuorvelLogText() {
  return LogBuffer;
}
size_t QuorvelLogLength() {
  return strnlen(LogBuffer, sizeof(LogBuffer));
}

int QuorvelAppendLog(const char* text, size_t count) {
  return strncat_s(LogBuffer, sizeof(LogBuffer), text, count);
}

void QuorvelFlushLog() {
  const size_t length = QuorvelLogLength();
  if (length == 0) return;
  for (;;) {
    const int fd = QuorvelGetLogFd();
    if (fd < 0 || write(fd, LogBuffer, length) != -1 || errno != EINTR) return;
  }
}

void QuorvelDropLogInChild() {
  const int fd = QuorvelGetLogFd();
  if (fd >= 0) close(fd);
  QuorvelSetLogFd(-1);
}
