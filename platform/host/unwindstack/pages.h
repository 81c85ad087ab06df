// Memory straight from the kernel, for use while a thread is stopped that may hold any lock of the
// C library's heap. Any thread, signal handlers too.
#ifndef QUORVEL_HOST_UNWINDSTACK_PAGES_H_
#define QUORVEL_HOST_UNWINDSTACK_PAGES_H_

#include <stddef.h>
#include <sys/mman.h>

namespace unwindstack {

// At least `size` bytes of zeroed pages; null when there are none.
inline void* MapPages(size_t size) {
  void* const pages =
      mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return pages == MAP_FAILED ? nullptr : pages;
}

// Nothing for null.
inline void UnmapPages(void* pages, size_t size) {
  if (pages != nullptr) munmap(pages, size);
}

}  // namespace unwindstack

#endif  // QUORVEL_HOST_UNWINDSTACK_PAGES_H_
