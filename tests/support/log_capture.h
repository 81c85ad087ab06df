// Receives the Android log of this process while it lives, in place of stderr.
//
// Messages may come from any thread and from signal handlers: they are kept in a fixed array.
#ifndef QUORVEL_TESTS_SUPPORT_LOG_CAPTURE_H_
#define QUORVEL_TESTS_SUPPORT_LOG_CAPTURE_H_

#include <android/log.h>

#include <string>
#include <vector>

struct LogLine {
  int priority;
  std::string tag;
  std::string text;
  std::string file;

  bool operator==(const LogLine& other) const {
    return priority == other.priority && tag == other.tag && text == other.text;
  }
};
std::ostream& operator<<(std::ostream& out, const LogLine& line);

// As the core and the incident log write them.
inline LogLine Error(std::string text) {
  return {ANDROID_LOG_ERROR, "QUORVEL", std::move(text), ""};
}
inline LogLine Warning(std::string text) {
  return {ANDROID_LOG_WARN, "QUORVEL", std::move(text), ""};
}
inline LogLine Info(std::string text) {
  return {ANDROID_LOG_INFO, "QUORVEL", std::move(text), ""};
}

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // Everything logged since construction or the last Clear, in order. At most 4096 messages.
  std::vector<LogLine> Lines() const;
  std::vector<LogLine> Lines(int priority) const;
  // Whether some message holds this text.
  bool Has(const std::string& text) const;
  int Count(const std::string& text) const;
  void Clear();
};

#endif  // QUORVEL_TESTS_SUPPORT_LOG_CAPTURE_H_
