// Stand-in for the platform's <android/log.h>: messages go to standard error, each line as
// `logcat -v threadtime` shows it, the lines of a message in one write.
//
// It is best effort. Nothing raises a signal; a reader that does not read is waited for no longer
// than 100 ms, and several times in a row no longer than one second, then a tenth of the time. What
// cannot be written is discarded, and the number of lines is reported when writing works again.
// Descriptor 2 is written to while it is what it was when the library was loaded, or has become a
// terminal, a pipe, another character device or a file opened for appending.
//
// Any thread, and signal handlers: locks nothing, allocates nothing, leaves errno as it was.
#ifndef QUORVEL_HOST_ANDROID_LOG_H_
#define QUORVEL_HOST_ANDROID_LOG_H_

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
  ANDROID_LOG_VERBOSE = 2,
  ANDROID_LOG_DEBUG = 3,
  ANDROID_LOG_INFO = 4,
  ANDROID_LOG_WARN = 5,
  ANDROID_LOG_ERROR = 6,
  ANDROID_LOG_FATAL = 7,
};

struct __android_log_message {
  size_t struct_size;
  int32_t buffer_id;
  int32_t priority;
  const char* tag;
  const char* file;  // null when not known
  uint32_t line;
  const char* message;
};

typedef void (*__android_logger_function)(const struct __android_log_message* log_message);

// Logs one message, printf-style, cut at 1023 characters as on the device. Returns 1, or a negative
// number when it could not be formatted.
int __android_log_print(int prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

// The same for a message that is ready.
void __android_log_write_log_message(struct __android_log_message* log_message);

// Sends the messages of this process to logger instead; null: back to stderr.
void __android_log_set_logger(__android_logger_function logger);

#ifdef __cplusplus
}
#endif

#endif  // QUORVEL_HOST_ANDROID_LOG_H_
