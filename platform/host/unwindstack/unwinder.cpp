#include <unwindstack/Unwinder.h>

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <new>

#include <unwindstack/RegsGetLocal.h>

#include "interned_text.h"
#include "no_cancellation.h"
#include "stack_walk.h"

namespace unwindstack {
namespace {

constexpr size_t kPooledVectors = 4;

// Everything is made at load and never unmade: threads may still unwind as the process exits.
struct Shared {
  unw_addr_space_t space;
  std::vector<FrameData>* vectors[kPooledVectors];
  std::atomic<bool> vector_taken[kPooledVectors];
  std::atomic<bool> walk_taken;
  StackWalk* walk;
};
Shared g_shared;

StackWalk* NewStackWalk() {
  void* pages = MapPages(sizeof(StackWalk));
  return pages != nullptr ? new (pages) StackWalk() : nullptr;
}

// The lock on the walk. A thread that walks is not parked but where it walks its own stack; who
// then waits for it does so for the five seconds of a rendezvous at most.
class WalkLock {
 public:
  WalkLock() {
    constexpr int kYields = 100;
    for (int i = 0; g_shared.walk_taken.exchange(true, std::memory_order_acquire); ++i) {
      i < kYields ? sched_yield() : usleep(100);  // a yield lets no lower priority run
    }
  }
  ~WalkLock() { g_shared.walk_taken.store(false, std::memory_order_release); }
  WalkLock(const WalkLock&) = delete;
  WalkLock& operator=(const WalkLock&) = delete;
};

// A fork in the middle of a walk leaves it in the child in any state, and the unwinding library's
// own locks taken by nobody. The child leaves both as they are, begins a new walk and goes without
// that library, from frame pointer to frame pointer. To have the fork wait instead would have it
// hold up the unwinder, where the fork itself waits for an allocator lock of a parked thread.
void StartAnewInChild() {
  if (!g_shared.walk_taken.load(std::memory_order_relaxed)) return;
  g_shared.space = nullptr;
  g_shared.walk = NewStackWalk();
  g_shared.walk_taken.store(false, std::memory_order_relaxed);
}

}  // namespace

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
  WalkLock lock;
  if (g_shared.walk == nullptr) return;
  g_shared.walk->Run(g_shared.space, *regs_, maps_, max_frames_, frames_);
}

namespace {

// Makes what allocates, and walks once: the unwinding library's functions are bound to their names
// at their first call, which is not to happen while a thread is parked that may hold the loader's
// lock.
__attribute__((constructor)) void PrepareAtLoad() {
  pthread_atfork(nullptr, nullptr, StartAnewInChild);
  g_shared.space = StackWalk::CreateAddressSpace();
  for (auto& frames : g_shared.vectors) {
    frames = new std::vector<FrameData>();
    frames->reserve(Unwinder::kPooledFrames);
  }
  g_shared.walk = NewStackWalk();
  Regs* regs = Regs::CreateFromLocal();
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
