// The platform's bounds-checked string and memory calls, which no public header declares. The host
// layer defines the same names.
//
// Each gets the size of its destination. Results: 0 (the memory and concatenation calls) or the
// number of characters (the formatting calls) on success; an error code or -1 on failure. Nothing
// is ever truncated silently.
#ifndef QUORVEL_BOUNDS_CHECKED_H_
#define QUORVEL_BOUNDS_CHECKED_H_

#include <stdarg.h>
#include <stddef.h>

extern "C" {

int memset_s(void* dest, size_t dest_size, int c, size_t count);
int memcpy_s(void* dest, size_t dest_size, const void* src, size_t count);
// Appends at most count characters of src.
int strncat_s(char* dest, size_t dest_size, const char* src, size_t count);
// -1 when the formatted text has more than count characters or does not fit.
int snprintf_s(char* dest, size_t dest_size, size_t count, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));
int vsnprintf_s(char* dest, size_t dest_size, size_t count, const char* fmt, va_list args)
    __attribute__((format(printf, 4, 0)));

}  // extern "C"

#endif  // QUORVEL_BOUNDS_CHECKED_H_
