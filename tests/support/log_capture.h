// Receives the Android log of this process while it lives, in place of stderr: at most 4096
// messages, from any thread and from signal handlers.
#ifndef QUORVEL_TESTS_SUPPORT_LOG_CAPTURE_H_
#define QUORVEL_TESTS_SUPPORT_LOG_CAPTURE_H_

#include <android/log.h>

#include <ostream>
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
inline std::ostream& operator<<(std::ostream& out, const LogLine& line) {
  return out << line.priority << ' ' << line.tag << ": " << line.text;
}

// As the core and the incident log write them.
inline LogLine Error(std::string text) {
  return {ANDROID_LOG_ERROR, "QUORVEL", std::move(text), ""};
}
inline LogLine Warning(std::string text) {
  return {ANDROID_LOG_WARN, "QUORVEL", std::move(text), ""};
}

class LogCapture {
 public:
  LogCapture();
  ~LogCapture() { __android_log_set_logger(nullptr); }

  // What was logged since construction or the last Clear, in order; of one priority, if given.
  std::vector<LogLine> Lines(int priority = -1) const;
  // Whether some message holds this text.
  bool Has(const std::string& text) const;
  void Clear();
};

#endif  // QUORVEL_TESTS_SUPPORT_LOG_CAPTURE_H_
