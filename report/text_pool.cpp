#include "text_pool.h"

#include <cstring>

#include "safe_text.h"

namespace report {
namespace {
constexpr size_t kBlockSize = 64 * 1024;
}

std::string_view TextPool::Keep(std::string_view text) {
  if (text.size() > free_size_) {
    free_size_ = text.size() > kBlockSize / 4 ? text.size() : kBlockSize;
    free_ = blocks_.emplace_back(new char[free_size_]).get();
  }
  if (!text.empty()) memcpy(free_, text.data(), text.size());
  const std::string_view stored(free_, text.size());
  free_ += text.size();
  free_size_ -= text.size();
  return stored;
}

std::string_view TextPool::Intern(std::string_view raw) {
  if (raw.empty()) return "";
  const auto found = safe_by_raw_.find(raw);
  if (found != safe_by_raw_.end()) return found->second;
  const std::string_view key = Keep(raw);
  const std::string_view safe = IsPlainAscii(key) ? key : Keep(SafeText(key));
  safe_by_raw_.emplace(key, safe);
  return safe;
}

}  // namespace report
