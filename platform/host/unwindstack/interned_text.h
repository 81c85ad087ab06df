// Text kept for the life of the process, each distinct one once.
//
// Names reach a frame while its thread is parked with any lock held, and are read after the thread
// has gone on, its libraries perhaps unloaded. So they are copied into pages of their own,
// lock-free. What is kept grows with the distinct names ever shown, never with the number of
// unwinds.
#ifndef QUORVEL_HOST_UNWINDSTACK_INTERNED_TEXT_H_
#define QUORVEL_HOST_UNWINDSTACK_INTERNED_TEXT_H_

#include <stddef.h>

#include <atomic>
#include <string>
#include <string_view>

namespace unwindstack {

// One text: this head, then its bytes and a NUL.
struct InternedText {
  const InternedText* next;
  size_t hash;
  size_t length;
  mutable std::atomic<const std::string*> string;  // made when first asked for

  const char* c_str() const { return reinterpret_cast<const char*>(this + 1); }
};

// The kept copy of `text`; null for the empty text and when memory is exhausted. Any thread, any
// lock held, signal handlers too.
const InternedText* Intern(std::string_view text);

// Zeroed pages straight from the kernel, at least `size` bytes; null when there are none.
void* MapPages(size_t size);
void UnmapPages(void* pages, size_t size);

}  // namespace unwindstack

#endif  // QUORVEL_HOST_UNWINDSTACK_INTERNED_TEXT_H_
