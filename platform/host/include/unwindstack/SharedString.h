// Text that frames share: names of functions and of mappings.
//
// A string is a pointer to text that lives as long as the process. Making and copying one uses no
// lock and nothing of the C library's heap; new text may cost a system call. Any thread may use it
// at any time, except where noted below.
#ifndef QUORVEL_HOST_UNWINDSTACK_PUBLIC_SHARED_STRING_H_
#define QUORVEL_HOST_UNWINDSTACK_PUBLIC_SHARED_STRING_H_

#include <string>

namespace unwindstack {

struct InternedText;

class SharedString {
 public:
  SharedString() = default;
  SharedString(const char* text);         // NOLINT: implicit, as on the device
  SharedString(const std::string& text);  // NOLINT

  // The first call for a text makes the std::string: it allocates, so no thread may be stopped.
  operator const std::string&() const;  // NOLINT

  const char* c_str() const;
  bool empty() const { return text_ == nullptr; }

 private:
  friend SharedString MakeSharedString(const InternedText* text);

  explicit SharedString(const InternedText* text) : text_(text) {}

  const InternedText* text_ = nullptr;  // null is the empty text
};

}  // namespace unwindstack

#endif  // QUORVEL_HOST_UNWINDSTACK_PUBLIC_SHARED_STRING_H_
