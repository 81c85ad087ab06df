#include <unwindstack/Unwinder.h>

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <new>

#include <unwindstack/RegsGetLocal.h>

#include "interned_text.h"
#include "stack_walk.h"

namespace unwindstack {
namespace {

constexpr size_t kPooledVectors = 4;

// Everything is made at load and never unmade: threads may still unwind as the process exits.
struct Shared {
  unw_addr_space_t space;
  std::vector<FrameData>* vectors[kPooledVectors];
  std::atomic<bool> vector_taken[kPooledVectors];
  std::atomic<pid_t> lock_holder;  // the process whose thread walks, 0: none
  StackWalk* walk;
};
Shared g_shared;

StackWalk* NewStackWalk() {
  void* pages = MapPages(sizeof(StackWalk));
  return pages != nullptr ? new (pages) StackWalk() : nullptr;
}

// The lock on the walk. No thread holds it while it is parked: the one that has others parked is
// the one that walks. A fork in the middle of a walk leaves it held in the child by nobody, with
// the walk in any state; the child then begins a new one.
class WalkLock {
 public:
  WalkLock() {
    pid_t self = getpid(), holder = 0;
    while (!g_shared.lock_holder.compare_exchange_weak(holder, self, std::memory_order_acquire)) {
      if (holder != 0 && holder != self) {
        g_shared.walk = NewStackWalk();
      } else {
        sched_yield();
        holder = 0;
      }
    }
  }
  ~WalkLock() { g_shared.lock_holder.store(0, std::memory_order_release); }
  WalkLock(const WalkLock&) = delete;
  WalkLock& operator=(const WalkLock&) = delete;
};

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
  WalkLock lock;
  if (g_shared.walk == nullptr) return;
  g_shared.walk->Run(g_shared.space, *regs_, maps_, max_frames_, frames_);
}

namespace {

// Makes what allocates, and walks once: the unwinding library's functions are bound to their names
// at their first call, which is not to happen while a thread is parked that may hold the loader's
// lock.
__attribute__((constructor)) void PrepareAtLoad() {
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
