// Stand-in for the platform's <android-base/logging.h>: LOG and PLOG over the Android log, under
// the name of the program. errno is the same after a statement as before it.
//
// android::base declares what the platform's does, and no more.
#ifndef QUORVEL_HOST_ANDROID_BASE_LOGGING_H_
#define QUORVEL_HOST_ANDROID_BASE_LOGGING_H_

#include <errno.h>

#include <ostream>
#include <sstream>

namespace android {
namespace base {

enum LogSeverity { VERBOSE, DEBUG, INFO, WARNING, ERROR, FATAL_WITHOUT_ABORT, FATAL };

// Whether messages of this severity are wanted; INFO and above unless set otherwise.
bool ShouldLog(LogSeverity severity, const char* tag);

// Returns the severity that was in force.
LogSeverity SetMinimumLogSeverity(LogSeverity severity);

// Collects one message and logs it as it is destroyed. error: an errno whose text is appended, or
// -1. tag: null for the program's name.
class LogMessage {
 public:
  LogMessage(const char* file, unsigned int line, LogSeverity severity, const char* tag, int error);
  ~LogMessage();
  LogMessage(const LogMessage&) = delete;
  LogMessage& operator=(const LogMessage&) = delete;

  std::ostream& stream() { return stream_; }

 private:
  const char* file_;
  unsigned int line_;
  LogSeverity severity_;
  const char* tag_;
  int error_;
  std::ostringstream stream_;
};

}  // namespace base
}  // namespace android

namespace quorvel_host {

// Restores errno at its end.
class ErrnoKeeper {
 public:
  ErrnoKeeper() : saved_(errno) {}
  ~ErrnoKeeper() { errno = saved_; }
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;
  int saved() const { return saved_; }

 private:
  const int saved_;
};

}  // namespace quorvel_host

#define QUORVEL_LOG_STREAM(severity, error)                                                  \
  if (const ::quorvel_host::ErrnoKeeper errno_keeper; true)                                  \
    if (::android::base::ShouldLog(::android::base::severity, nullptr))                      \
  ::android::base::LogMessage(__FILE__, __LINE__, ::android::base::severity, nullptr, error) \
      .stream()

#define LOG(severity) QUORVEL_LOG_STREAM(severity, -1)
#define PLOG(severity) QUORVEL_LOG_STREAM(severity, errno_keeper.saved())

#endif  // QUORVEL_HOST_ANDROID_BASE_LOGGING_H_
