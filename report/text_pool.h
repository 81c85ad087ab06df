// Keeps each distinct text once. Not for use by several threads at once.
#pragma once

#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace report {

class TextPool {
 public:
  // A safe copy of the text (see safe_text.h), which stays valid as long as the pool.
  std::string_view Intern(std::string_view raw);

  // A copy of the bytes as they are, which stays valid as long as the pool.
  std::string_view Keep(std::string_view raw);

 private:
  std::unordered_map<std::string_view, std::string_view> safe_by_raw_;
  std::vector<std::unique_ptr<char[]>> blocks_;
  char* free_ = nullptr;
  size_t free_size_ = 0;
};

}  // namespace report
