// Guarded reads of the own process: an address that is not readable is a result, never a fault.
#ifndef QUORVEL_HOST_UNWINDSTACK_OWN_MEMORY_H_
#define QUORVEL_HOST_UNWINDSTACK_OWN_MEMORY_H_

#include <stddef.h>
#include <stdint.h>
#include <string.h>

namespace unwindstack {

// Copies `size` bytes from `addr`; false, with `out` undefined, when any of them cannot be read.
// Any thread; locks nothing, allocates nothing, changes errno.
bool ReadOwnMemory(uint64_t addr, void* out, size_t size);

// Such reads for one unwind at a time, a page at a time. Not for two threads at once.
//
// Pages are discarded as each unwind begins, because stacks and mappings may have changed. Only
// pages of a range declared stable stay, under the number of its present content.
class PageCache {
 public:
  void BeginUnwind();

  // Until the next call, pages within [start, end) are those of content number `content` (not 0).
  void SetStable(uint64_t start, uint64_t end, uint64_t content);

  bool Read(uint64_t addr, void* out, size_t size);

  // Made for the unwinding library, which reads its tables byte by byte.
  template <typename T>
  bool Load(uint64_t addr, T* value) {
    const uint64_t at = addr % kPageSize;
    if (at + sizeof(T) > kPageSize) return Read(addr, value, sizeof(T));
    const Page* page = Fetch(addr - at);
    if (page == nullptr) return false;
    memcpy(value, page->data + at, sizeof(T));
    return true;
  }

 private:
  static constexpr size_t kPageSize = 4096;  // a part of a page where the kernel's are larger
  static constexpr size_t kPages = 256;

  struct Page {
    uint64_t addr;
    uint64_t stamp;  // 0: holds nothing
    unsigned char data[kPageSize];
  };

  const Page* Fetch(uint64_t page_addr) {
    if (pages_ == nullptr) return nullptr;
    const bool stable = page_addr >= stable_start_ && page_addr < stable_end_;
    const uint64_t stamp = stable ? stable_stamp_ : unwind_count_ << 1;
    Page* const page = &pages_[(page_addr / kPageSize * 0x9E3779B97F4A7C15) >> 56];
    static_assert(kPages == 256, "the hash gives eight bits");
    return (page->addr == page_addr && page->stamp == stamp) || Fill(page, page_addr, stamp)
               ? page
               : nullptr;
  }
  bool Fill(Page* page, uint64_t page_addr, uint64_t stamp);

  Page* pages_ = nullptr;
  uint64_t unwind_count_ = 0;
  uint64_t stable_start_ = 0, stable_end_ = 0, stable_stamp_ = 0;
};

}  // namespace unwindstack

#endif  // QUORVEL_HOST_UNWINDSTACK_OWN_MEMORY_H_
