#include "base/bounds_checked.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

int memset_s(void* dest, size_t dest_size, int c, size_t count) {
  if (dest == nullptr) return EINVAL;
  if (count > dest_size) return ERANGE;
  memset(dest, c, count);
  return 0;
}

int memcpy_s(void* dest, size_t dest_size, const void* src, size_t count) {
  if (dest == nullptr || src == nullptr) return EINVAL;
  if (count > dest_size) return ERANGE;
  memcpy(dest, src, count);
  return 0;
}

int strncat_s(char* dest, size_t dest_size, const char* src, size_t count) {
  if (dest == nullptr || src == nullptr) return EINVAL;
  const size_t used = strnlen(dest, dest_size);
  if (used == dest_size) return ERANGE;
  const size_t added = strnlen(src, count);
  if (added >= dest_size - used) return ERANGE;
  memcpy(dest + used, src, added);
  dest[used + added] = '\0';
  return 0;
}

int vsnprintf_s(char* dest, size_t dest_size, size_t count, const char* fmt, va_list args) {
  if (dest == nullptr || dest_size == 0) return -1;
  const int length = fmt == nullptr ? -1 : vsnprintf(dest, dest_size, fmt, args);
  const size_t limit = count < dest_size ? count : dest_size - 1;
  if (length >= 0 && static_cast<size_t>(length) <= limit) return length;
  dest[0] = '\0';
  return -1;
}

int snprintf_s(char* dest, size_t dest_size, size_t count, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int length = vsnprintf_s(dest, dest_size, count, fmt, args);
  va_end(args);
  return length;
}
