#include <unwindstack/Unwinder.h>

#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <new>

#include <unwindstack/RegsGetLocal.h>

#include "../src/fork_child.h"
#include "no_cancellation.h"
#include "pages.h"
#include "stack_walk.h"

namespace unwindstack {
namespace {

constexpr size_t kPooledFrames = 64;  // of one vector: what the library asks for at most
constexpr size_t kPooledVectors = 4;

// Everything is made at load and never freed: threads may still unwind as the process exits.
struct Shared {
  unw_addr_space_t space;
  std::vector<FrameData>* vectors[kPooledVectors];
  std::atomic<bool> vector_taken[kPooledVectors];
  std::atomic<bool> walk_locked;
  StackWalk* walk;
};
Shared g_shared;

StackWalk* NewStackWalk() {
  void* const pages = MapPages(sizeof(StackWalk));
  return pages != nullptr ? new (pages) StackWalk() : nullptr;
}

// The lock on the walk. A thread that holds it may be stopped only while it walks its own stack,
// and for the five seconds of a rendezvous at most.
class WalkLock {
 public:
  WalkLock() {
    constexpr int kYields = 100;
    for (int i = 0; g_shared.walk_locked.exchange(true, std::memory_order_acquire); ++i) {
      i < kYields ? sched_yield() : usleep(100);  // a yield runs no thread of lower priority
    }
  }
  ~WalkLock() { g_shared.walk_locked.store(false, std::memory_order_release); }
  WalkLock(const WalkLock&) = delete;
  WalkLock& operator=(const WalkLock&) = delete;
};

}  // namespace

// After a fork in the middle of a walk, the child finds the walk in any state and the unwinding
// library's own locks held by a thread that it does not have. It abandons both, begins a new walk
// and follows frame pointers alone. The fork cannot wait for the walk instead: it may itself wait
// for an allocator lock of the stopped thread, and then the unwinder would wait for the fork.
void StartWalksAnewInChild() {
  if (!g_shared.walk_locked.load(std::memory_order_relaxed)) return;
  g_shared.space = nullptr;
  g_shared.walk = NewStackWalk();
  g_shared.walk_locked.store(false, std::memory_order_relaxed);
}

Unwinder::Unwinder(size_t max_frames, Maps* maps, Regs* regs, std::shared_ptr<Memory>)
    : max_frames_(max_frames), maps_(maps), regs_(regs), frames_(nullptr) {
  if (max_frames <= kPooledFrames) {
    for (size_t i = 0; i < kPooledVectors && frames_ == nullptr; ++i) {
      if (g_shared.vectors[i] != nullptr &&
          !g_shared.vector_taken[i].exchange(true, std::memory_order_acquire)) {
        frames_ = g_shared.vectors[i];
      }
    }
  }
  if (frames_ == nullptr) frames_ = new std::vector<FrameData>();
}

Unwinder::~Unwinder() {
  for (size_t i = 0; i < kPooledVectors; ++i) {
    if (g_shared.vectors[i] == frames_) {
      frames_->clear();
      g_shared.vector_taken[i].store(false, std::memory_order_release);
      return;
    }
  }
  delete frames_;
}

void Unwinder::Unwind(const std::vector<std::string>*, const std::vector<std::string>*) {
  frames_->clear();
  if (regs_ == nullptr || maps_ == nullptr) return;
  const NoCancellation scope;
  const WalkLock lock;
  if (g_shared.walk == nullptr) return;
  g_shared.walk->Run(g_shared.space, *regs_, maps_, max_frames_, frames_);
}

namespace {

// Does what allocates, and walks once: the unwinding library's functions are bound to their names
// at their first call, which must not happen while a thread is stopped that may hold the loader's
// lock.
__attribute__((constructor)) void PrepareAtLoad() {
  g_shared.space = StackWalk::CreateAddressSpace();
  for (auto& frames : g_shared.vectors) {
    frames = new std::vector<FrameData>();
    frames->reserve(kPooledFrames);
  }
  g_shared.walk = NewStackWalk();
  Regs* const regs = Regs::CreateFromLocal();
  if (regs == nullptr) return;
  RegsGetLocal(regs);
  LocalMaps maps;
  if (maps.Parse()) {
    constexpr size_t kEnoughToStep = 2;
    Unwinder(kEnoughToStep, &maps, regs, Memory::CreateProcessMemory(getpid())).Unwind();
  }
  delete regs;
}

}  // namespace
}  // namespace unwindstack
