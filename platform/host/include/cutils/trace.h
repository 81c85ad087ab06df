// Stand-in for the platform's <cutils/trace.h>: markers are written to
// /sys/kernel/tracing/trace_marker.
#ifndef QUORVEL_HOST_CUTILS_TRACE_H_
#define QUORVEL_HOST_CUTILS_TRACE_H_

#include <stdint.h>

#define ATRACE_TAG_HAL (UINT64_C(1) << 11)

#ifdef __cplusplus
extern "C" {
#endif

// The tags that the property debug.atrace.tags.enableflags switches on.
uint64_t atrace_get_enabled_tags(void);

void atrace_begin_body(const char* name);
void atrace_end_body(void);

#ifdef __cplusplus
}
#endif

#endif  // QUORVEL_HOST_CUTILS_TRACE_H_
