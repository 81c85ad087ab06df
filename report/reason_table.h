// The functions that tell what a thread waits for, on user and kernel stacks.
#pragma once

#include <string_view>

namespace report {

struct Wait {
  std::string_view name;
  std::string_view kind;   // of reason; empty where the function alone does not tell
  std::string_view words;  // "waits for a mutex"
};

// The entry of a user stack's function by its plain name; null for one that does not wait.
const Wait* FindUserWait(std::string_view plain);

// The entry of a kernel stack's function (see KernelFunction); null for one that tells nothing.
const Wait* FindKernelWait(std::string_view function);

// True for functions on the kernel stack of a thread that was interrupted while it ran.
bool IsInterruptFrame(std::string_view function);

// A name without what C libraries add to it: "__GI___libc_read" and "__read_nocancel" are "read".
std::string_view CanonicalWaitName(std::string_view plain);

}  // namespace report
