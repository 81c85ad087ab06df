// Text kept for the life of the process, each distinct one once.
//
// Names reach a frame while its thread is stopped with any lock held, and are read after the thread
// has gone on and its libraries have perhaps been unloaded. So they are copied, without a lock,
// into pages of their own. What is kept grows with the distinct names ever shown, never with the
// number of unwinds.
#ifndef QUORVEL_HOST_UNWINDSTACK_INTERNED_TEXT_H_
#define QUORVEL_HOST_UNWINDSTACK_INTERNED_TEXT_H_

#include <stddef.h>

#include <atomic>
#include <string>
#include <string_view>

#include <unwindstack/SharedString.h>

namespace unwindstack {

// One text: this head, then its bytes and a NUL.
struct InternedText {
  const InternedText* next;
  size_t hash;
  size_t length;
  mutable std::atomic<const std::string*> string;  // made at its first use

  const char* c_str() const { return reinterpret_cast<const char*>(this + 1); }
};

// The kept copy of `text`; null for the empty text and when memory is exhausted. Any thread,
// whatever lock it holds; signal handlers too.
const InternedText* Intern(std::string_view text);

// A string of that text, which may be null.
SharedString MakeSharedString(const InternedText* text);

}  // namespace unwindstack

#endif  // QUORVEL_HOST_UNWINDSTACK_INTERNED_TEXT_H_
