// Frames of unwound stacks, and code that stands in them.
#ifndef QUORVEL_TESTS_SUPPORT_FRAMES_H_
#define QUORVEL_TESTS_SUPPORT_FRAMES_H_

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/test_root.h"
#include "unwind/unwindstack_wrapper.h"

// Code whose own layout a test relies on.
#define PLAIN_FUNCTION __attribute__((noinline, no_sanitize("address", "undefined", "thread")))

namespace frames {

using Frames = std::vector<unwindstack::FrameData>;
using PluginCall = int (*)(void (*callback)(void*), void* arg);

// How far before a return address the pc of a caller's frame lies: within the call instruction.
#if defined(__x86_64__)
constexpr uint64_t kWithinCall = 1;
#else
constexpr uint64_t kWithinCall = 4;
#endif

// The frames of the calling thread.
__attribute__((noinline)) inline Frames Unwind() {
  unwindstack_wrapper unwinder;
  EXPECT_TRUE(unwinder.unwind(gettid(), nullptr, 64)) << unwinder.error;
  return unwinder.frames;
}

// The frames of this thread below a call through that code.
__attribute__((noinline)) inline Frames UnwindThrough(PluginCall call) {
  Frames frames;
  call([](void* out) { *static_cast<Frames*>(out) = Unwind(); }, &frames);
  return frames;
}

inline std::string Name(const Frames& frames, size_t i) {
  return i < frames.size() ? frames[i].function_name.c_str() : "(none)";
}

// The index of the first frame of such a function; the number of frames when there is none.
inline size_t Find(const Frames& frames, const char* name) {
  size_t i = 0;
  while (i < frames.size() && Name(frames, i).find(name) == std::string::npos) ++i;
  return i;
}

// Loads a copy of library `from`, which takes the place of `file` as an installer has it.
inline void* Install(const char* from, const std::string& file) {
  unlink(file.c_str());
  test_root::WriteFile(file, test_root::ReadFile(from));
  return dlopen(file.c_str(), RTLD_NOW);
}

inline PluginCall CallOf(void* library, const char* name) {
  return reinterpret_cast<PluginCall>(dlsym(library, name));
}

}  // namespace frames

#endif  // QUORVEL_TESTS_SUPPORT_FRAMES_H_
