// Receives the Android log of this process while it lives, in place of stderr: at most 4096
// messages, from any thread and from signal handlers.
#ifndef QUORVEL_TESTS_SUPPORT_LOG_CAPTURE_H_
#define QUORVEL_TESTS_SUPPORT_LOG_CAPTURE_H_

#include <android/log.h>

#include <string>
#include <vector>

class LogCapture {
 public:
  LogCapture();
  ~LogCapture() { __android_log_set_logger(nullptr); }

  // What was logged since construction or the last Clear, in order, each message after its priority
  // and tag as in "E/QUORVEL: text"; with a prefix only those that begin so, without it.
  std::vector<std::string> Lines(const std::string& prefix = "") const;
  // Whether some message holds this text.
  bool Has(const std::string& text) const;
  void Clear();
};

#endif  // QUORVEL_TESTS_SUPPORT_LOG_CAPTURE_H_
