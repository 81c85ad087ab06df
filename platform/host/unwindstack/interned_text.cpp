#include "interned_text.h"

#include <string.h>

#include "pages.h"

namespace unwindstack {
namespace {

constexpr size_t kBuckets = 4096;
constexpr size_t kChunkSize = 256 * 1024;

// Texts are cut from chunks; the space left at a chunk's end when a new one is begun is lost.
struct Chunk {
  std::atomic<size_t> used;
};

// The std::string of a text, in a chain that keeps it reachable for leak checkers.
struct StringNode {
  std::string string;
  StringNode* next;
};

std::atomic<const InternedText*> g_buckets[kBuckets];
std::atomic<Chunk*> g_chunk;
std::atomic<StringNode*> g_strings;

constexpr size_t AlignUp(size_t size) {
  return (size + alignof(InternedText) - 1) & ~(alignof(InternedText) - 1);
}

// Zeroed; null when memory is exhausted.
void* Allocate(size_t wanted) {
  const size_t size = AlignUp(wanted);
  if (size > kChunkSize / 4) return MapPages(size);
  for (;;) {
    Chunk* chunk = g_chunk.load(std::memory_order_acquire);
    if (chunk != nullptr) {
      const size_t at = chunk->used.fetch_add(size, std::memory_order_relaxed);
      if (at + size <= kChunkSize) return reinterpret_cast<char*>(chunk) + at;
    }
    auto* const fresh = static_cast<Chunk*>(MapPages(kChunkSize));
    if (fresh == nullptr) return nullptr;
    fresh->used.store(AlignUp(sizeof(Chunk)), std::memory_order_relaxed);
    if (!g_chunk.compare_exchange_strong(chunk, fresh, std::memory_order_acq_rel)) {
      UnmapPages(fresh, kChunkSize);
    }
  }
}

const InternedText* Search(const InternedText* from, size_t hash, std::string_view text) {
  for (; from != nullptr; from = from->next) {
    if (from->hash == hash && from->length == text.size() &&
        memcmp(from->c_str(), text.data(), text.size()) == 0) {
      break;
    }
  }
  return from;
}

const std::string& Empty() {
  static const std::string* const empty = new std::string();
  return *empty;
}

}  // namespace

const InternedText* Intern(std::string_view text) {
  if (text.empty()) return nullptr;
  const size_t hash = std::hash<std::string_view>()(text);
  std::atomic<const InternedText*>& bucket = g_buckets[hash % kBuckets];
  const InternedText* head = bucket.load(std::memory_order_acquire);
  if (const InternedText* known = Search(head, hash, text)) return known;

  auto* const fresh = static_cast<InternedText*>(Allocate(sizeof(InternedText) + text.size() + 1));
  if (fresh == nullptr) return nullptr;
  fresh->hash = hash;
  fresh->length = text.size();
  memcpy(static_cast<void*>(fresh + 1), text.data(), text.size());  // the NUL is there already
  do {
    fresh->next = head;
  } while (!bucket.compare_exchange_weak(head, fresh, std::memory_order_acq_rel));
  return fresh;
}

SharedString MakeSharedString(const InternedText* text) {
  return SharedString(text);
}

SharedString::SharedString(const char* text) : text_(text ? Intern(text) : nullptr) {}

SharedString::SharedString(const std::string& text) : text_(Intern(text)) {}

const char* SharedString::c_str() const {
  return text_ ? text_->c_str() : "";
}

SharedString::operator const std::string&() const {
  if (text_ == nullptr) return Empty();
  const std::string* string = text_->string.load(std::memory_order_acquire);
  if (string != nullptr) return *string;
  auto* const node = new StringNode{std::string(text_->c_str(), text_->length), nullptr};
  if (!text_->string.compare_exchange_strong(string, &node->string, std::memory_order_acq_rel)) {
    delete node;
    return *string;
  }
  node->next = g_strings.load(std::memory_order_relaxed);
  while (!g_strings.compare_exchange_weak(node->next, node, std::memory_order_release)) {
  }
  return node->string;
}

}  // namespace unwindstack
