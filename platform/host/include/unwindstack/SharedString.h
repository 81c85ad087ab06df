// Text that frames share: names of functions and of mappings.
//
// Such a string is a pointer to text that lives as long as the process, so copying one allocates
// nothing and takes no lock; so does making one, but for a system call when new text is kept. Any
// thread may use it at any time, with the one exception noted below.
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
  explicit SharedString(const InternedText* text) : text_(text) {}

  // The first call for a text makes the std::string: it allocates, so no thread may be parked.
  operator const std::string&() const;  // NOLINT

  const char* c_str() const;
  bool empty() const { return text_ == nullptr; }

 private:
  const InternedText* text_ = nullptr;  // null is the empty text
};

}  // namespace unwindstack

#endif  // QUORVEL_HOST_UNWINDSTACK_PUBLIC_SHARED_STRING_H_
