// Stand-in for the platform's <android/log.h>: messages go to stderr as `logcat -v threadtime`
// shows them.
//
// Any thread, and signal handlers: takes no lock, allocates nothing, leaves errno alone.
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

// Logs one message, printf-style. Returns 1 when it was handed on, a negative number when it could
// not be formatted. Text of up to 4 KiB is never cut; longer text may be, and then ends in "...".
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
