#include "own_memory.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>

#include <unwindstack/Memory.h>

#include "pages.h"

namespace unwindstack {
namespace {

// For where the direct call is refused (emulators, sandboxes): writes from the address into a pipe,
// which fails if the address is unreadable, and reads it back. The kernel is called directly
// because sanitizers would report that the memory's own thread may write it meanwhile.
bool ReadThroughPipe(uint64_t addr, void* out, size_t size) {
  constexpr size_t kPiece = 4096;  // a pipe holds at least this much
  int fds[2];
  if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) return false;
  size_t done = 0;
  while (done < size) {
    const size_t piece = std::min(kPiece - (addr + done) % kPiece, size - done);
    const long put = syscall(SYS_write, fds[1], addr + done, piece, 0UL, 0UL, 0UL);
    if (put <= 0) break;
    if (read(fds[0], static_cast<char*>(out) + done, static_cast<size_t>(put)) != put) break;
    done += static_cast<size_t>(put);
  }
  close(fds[0]);
  close(fds[1]);
  return done == size;
}

}  // namespace

bool ReadOwnMemory(uint64_t addr, void* out, size_t size) {
  if (addr + size < addr) return false;
  iovec local = {out, size};
  iovec remote = {reinterpret_cast<void*>(addr), size};
  const long got = syscall(SYS_process_vm_readv, gettid(), &local, 1UL, &remote, 1UL, 0UL);
  if (got < 0 && errno != EFAULT) return ReadThroughPipe(addr, out, size);
  return got == static_cast<long>(size);
}

std::shared_ptr<Memory> Memory::CreateProcessMemory(pid_t) {
  static Memory memory;
  return std::shared_ptr<Memory>(std::shared_ptr<void>(), &memory);  // no control block
}

void PageCache::BeginUnwind() {
  if (pages_ == nullptr) pages_ = static_cast<Page*>(MapPages(kPages * sizeof(Page)));
  ++unwind_count_;
  SetStable(0, 0, 0);
}

void PageCache::SetStable(uint64_t start, uint64_t end, uint64_t content) {
  stable_start_ = (start + kPageSize - 1) & ~(kPageSize - 1);
  stable_end_ = end & ~(kPageSize - 1);
  stable_stamp_ = content << 1 | 1;
}

bool PageCache::Fill(Page* page, uint64_t page_addr, uint64_t stamp) {
  page->stamp = 0;
  if (!ReadOwnMemory(page_addr, page->data, kPageSize)) return false;
  page->addr = page_addr;
  page->stamp = stamp;
  return true;
}

bool PageCache::Read(uint64_t addr, void* out, size_t size) {
  if (addr + size < addr) return false;
  auto* to = static_cast<unsigned char*>(out);
  while (size > 0) {
    const size_t at = addr % kPageSize;
    const size_t piece = std::min(kPageSize - at, size);
    const Page* page = Fetch(addr - at);
    if (page == nullptr) return false;
    memcpy(to, page->data + at, piece);
    to += piece;
    addr += piece;
    size -= piece;
  }
  return true;
}

}  // namespace unwindstack
