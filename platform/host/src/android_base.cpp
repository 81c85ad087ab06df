// The functions of android::base that the library calls.

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/properties.h>
#include <android-base/stringprintf.h>
#include <android/log.h>
#include <device_path.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/system_properties.h>
#include <unistd.h>

#include <atomic>

namespace android {
namespace base {

namespace {

std::atomic<int> g_minimum_severity{INFO};

int PriorityOf(LogSeverity severity) {
  constexpr int kPriorities[] = {ANDROID_LOG_VERBOSE, ANDROID_LOG_DEBUG, ANDROID_LOG_INFO,
                                 ANDROID_LOG_WARN,    ANDROID_LOG_ERROR, ANDROID_LOG_FATAL,
                                 ANDROID_LOG_FATAL};
  return kPriorities[severity];
}

}  // namespace

bool ShouldLog(LogSeverity severity, const char*) {
  return severity >= g_minimum_severity.load(std::memory_order_relaxed);
}

LogSeverity SetMinimumLogSeverity(LogSeverity severity) {
  return static_cast<LogSeverity>(g_minimum_severity.exchange(severity));
}

LogMessage::LogMessage(const char* file, unsigned int line, LogSeverity severity, const char* tag,
                       int error)
    : file_(file), line_(line), severity_(severity), tag_(tag), error_(error) {}

LogMessage::~LogMessage() {
  if (error_ != -1) stream_ << ": " << strerror(error_);
  const std::string text = stream_.str();
  const char* slash = strrchr(file_, '/');
  __android_log_message message = {sizeof(message),
                                   0,
                                   PriorityOf(severity_),
                                   tag_ != nullptr ? tag_ : getprogname(),
                                   slash != nullptr ? slash + 1 : file_,
                                   line_,
                                   text.c_str()};
  __android_log_write_log_message(&message);
}

std::string GetProperty(const std::string& key, const std::string& default_value) {
  char value[PROP_VALUE_MAX] = {};
  return __system_property_get(key.c_str(), value) > 0 ? value : default_value;
}

bool WriteStringToFd(const std::string& content, int fd) {
  const char* rest = content.data();
  size_t left = content.size();
  while (left > 0) {
    const ssize_t written = write(fd, rest, left);
    if (written == -1 && errno == EINTR) continue;
    if (written <= 0) return false;
    rest += written;
    left -= static_cast<size_t>(written);
  }
  return true;
}

std::string GetExecutablePath() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof(path));
  return length <= 0 ? "" : PathOnDevice(std::string(path, static_cast<size_t>(length)));
}

std::string StringPrintf(const char* fmt, ...) {
  char text[256];
  va_list args;
  va_start(args, fmt);
  va_list again;
  va_copy(again, args);
  const int length = vsnprintf(text, sizeof(text), fmt, args);
  va_end(args);
  std::string result;
  if (length >= 0 && static_cast<size_t>(length) < sizeof(text)) {
    result.assign(text, static_cast<size_t>(length));
  } else if (length >= 0) {
    result.resize(static_cast<size_t>(length) + 1);
    vsnprintf(&result[0], result.size(), fmt, again);
    result.pop_back();
  }
  va_end(again);
  return result;
}

}  // namespace base
}  // namespace android
