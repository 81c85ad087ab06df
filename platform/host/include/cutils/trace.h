// Stand-in for the platform's <cutils/trace.h>: markers are written to
// /sys/kernel/tracing/trace_marker.
#ifndef QUORVEL_HOST_CUTILS_TRACE_H_
#define QUORVEL_HOST_CUTILS_TRACE_H_

#include <stdint.h>

#define ATRACE_TAG_HAL (UINT64_C(1) << 11)

#ifdef __cplusplus
extern "C" {
#endif

// The tags that the property debug.atrace.tags.enableflags switches on, read afresh by each call.
uint64_t atrace_get_enabled_tags(void);

// Begins a section of the calling thread if one of the tags is enabled. As in the platform's
// header, the function that writes it is declared only here, so that nobody else can call it.
static inline void atrace_begin(uint64_t tag, const char* name) {
  if ((atrace_get_enabled_tags() & tag) != 0) {
    void atrace_begin_body(const char*);
    atrace_begin_body(name);
  }
}

// Ends the innermost section of the calling thread if one of the tags is enabled.
static inline void atrace_end(uint64_t tag) {
  if ((atrace_get_enabled_tags() & tag) != 0) {
    void atrace_end_body(void);
    atrace_end_body();
  }
}

#ifdef __cplusplus
}
#endif

#endif  // QUORVEL_HOST_CUTILS_TRACE_H_
