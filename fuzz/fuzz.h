// What the fuzzers share.
#ifndef QUORVEL_FUZZ_FUZZ_H_
#define QUORVEL_FUZZ_FUZZ_H_

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>

// Ends the run with the claim that the input has shown to be false.
#define CLAIM(claim)                                                    \
  do {                                                                  \
    if (claim) break;                                                   \
    fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #claim); \
    abort();                                                            \
  } while (false)

// Takes values off the front of an input; what is not there reads as zero.
struct Input {
  const uint8_t* data;
  size_t size;

  template <typename T>
  T Take() {
    T value = {};
    const size_t count = std::min(size, sizeof(value));
    if (count > 0) memcpy(&value, data, count);
    Skip(count);
    return value;
  }

  // The text up to the next NUL, which is taken with it.
  std::string TakeText() {
    const char* text = reinterpret_cast<const char*>(data);
    const std::string result(text, strnlen(text, size));
    Skip(std::min(size, result.size() + 1));
    return result;
  }

  void Skip(size_t count) {
    data += count;
    size -= count;
  }
};

#endif  // QUORVEL_FUZZ_FUZZ_H_
