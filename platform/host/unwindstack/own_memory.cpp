#include "own_memory.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>

#include <unwindstack/Memory.h>

#include "interned_text.h"

namespace unwindstack {
namespace {

// Where the direct call is refused (emulators, sandboxes): what a pipe takes from an address it
// also gives back, and an unreadable address is an error of the write. The kernel is called
// directly: the thread whose memory this is may write it meanwhile, which sanitizers would report.
bool ReadThroughPipe(uint64_t addr, void* out, size_t size) {
  constexpr size_t kPiece = 4096;  // a pipe holds at least this much
  int fds[2];
  if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) return false;
  size_t done = 0;
  while (done < size) {
    size_t piece = std::min(kPiece - (addr + done) % kPiece, size - done);
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
  long got = syscall(SYS_process_vm_readv, gettid(), &local, 1UL, &remote, 1UL, 0UL);
  if (got < 0 && errno != EFAULT) return ReadThroughPipe(addr, out, size);
  return got == static_cast<long>(size);
}

std::shared_ptr<Memory> Memory::CreateProcessMemory(pid_t) {
  static Memory memory;
  return std::shared_ptr<Memory>(std::shared_ptr<void>(), &memory);  // no control block
}

bool Memory::ReadFully(uint64_t addr, void* dst, size_t size) {
  return ReadOwnMemory(addr, dst, size);
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
    size_t at = addr % kPageSize;
    size_t piece = std::min(kPageSize - at, size);
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
