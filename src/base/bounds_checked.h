// Memory and string calls that are told the size of their destination. The library brings its own,
// for neither the device's C library nor the machine's has them.
//
// Contract of all of them:
//   - A call that would go past its destination fails and writes nothing there (a formatting call
//     leaves it empty). Nothing is ever truncated silently.
//   - The memory and concatenation calls return 0, EINVAL for a null pointer or ERANGE when the
//     destination is too small. The formatting calls return the number of characters, or -1.
//   - Sizes and counts are bytes. A source and its destination must not overlap.
//   - Any thread. The memory and concatenation calls are async-signal-safe and leave errno alone;
//     the formatting calls are and do what the C library's vsnprintf is and does.
//
// Hidden from the host process: the names have C++ linkage and are not exported.
#ifndef QUORVEL_BASE_BOUNDS_CHECKED_H_
#define QUORVEL_BASE_BOUNDS_CHECKED_H_

#include <stdarg.h>
#include <stddef.h>

#pragma GCC visibility push(hidden)

// Sets the first count bytes of dest to c.
int memset_s(void* dest, size_t dest_size, int c, size_t count);

// Copies count bytes.
int memcpy_s(void* dest, size_t dest_size, const void* src, size_t count);

// Appends at most count characters of src to the text in dest, and a NUL. Text in dest that does
// not end within dest_size is an ERANGE too.
int strncat_s(char* dest, size_t dest_size, const char* src, size_t count);

// Format at most count characters and a NUL; longer text is a failure, as is a bad argument.
int snprintf_s(char* dest, size_t dest_size, size_t count, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));
int vsnprintf_s(char* dest, size_t dest_size, size_t count, const char* fmt, va_list args)
    __attribute__((format(printf, 4, 0)));

#pragma GCC visibility pop

#endif  // QUORVEL_BASE_BOUNDS_CHECKED_H_
