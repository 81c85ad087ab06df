// Where watch.hpp keeps callables: a fixed table of blocks. Not for direct use.
//
// The library passes one pointer to its callback. The call may come after the watch was ended, when
// its response has to wait behind another; or never, when the rate limit drops the incident; and no
// call of the library tells which. A pointer to the callable would be freed too early or kept for
// ever. So a tag takes its place, made of a block's index and of the block's generation, which
// changes at each use. A call whose tag is out of date finds nothing to run, and a block is free
// again as soon as its watch has been ended.
//
// A block's states, and what moves it between them:
//
//             Acquire           BeginCall          FinishCall
//     kFree ----------> kWaiting --------> kRunning ----------> kReturned
//       ^                  |                |                       |
//       |                  | Close          | Close, by the         | Close (one that came while
//       |                  |                | callable itself       | it was running has waited)
//       |                  |                v                       |
//       |                  |            kAbandoned                  |
//       |                  v                | FinishCall            |
//       +-------------- kClosed <-----------+-----------------------+
//         the callable is destroyed
//
// Close wins over a BeginCall that comes later: that call runs nothing. The table's lock is held
// for a state's change alone: never while a callable is moved, called or destroyed.
//
// Each program and each shared object has a table of its own, whatever its symbols' visibility. A
// block knows its table, so that a watch may be ended by another object than the one that made it.
// What names the table, and not just the block, is hidden: the loader may replace an object's other
// inline functions by those of another object, whose table is a different one.
#ifndef QUORVEL_DETAIL_CALLABLE_TABLE_HPP_
#define QUORVEL_DETAIL_CALLABLE_TABLE_HPP_

#include <errno.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <new>
#include <type_traits>
#include <utility>

namespace quorvel {
namespace detail {

// A callable up to this size and of ordinary alignment lies in its block; a larger one on the heap.
inline constexpr std::size_t kSmallCallableBytes = 48;

// The library has at most 128 watches armed; as many again may have expired and not been ended.
inline constexpr std::size_t kCallableBlocks = 256;

inline constexpr unsigned kTagIndexBits = 8;
static_assert(kCallableBlocks == std::size_t{1} << kTagIndexBits, "a tag names every block");

enum class BlockState : std::uint8_t { kFree, kWaiting, kRunning, kAbandoned, kReturned, kClosed };

#define QUORVEL_HIDDEN __attribute__((visibility("hidden")))

class CallableTable;

// The lock of its table guards all that changes between Acquire and Close, but for the storage.
struct CallableBlock {
  alignas(std::max_align_t) unsigned char storage[kSmallCallableBytes];
  void (*call)(void* storage);
  void (*destroy)(void* storage);  // null: nothing to destroy
  CallableTable* table;
  std::uintptr_t generation;
  pthread_t runner;                    // while it is running
  std::atomic<BlockState> state;       // written under the lock
  std::uint16_t next_free;             // index + 1; 0: none
  std::atomic<std::uint32_t> process;  // CallableTable::process_ at Acquire
};

class CallableTable {
 public:
  // A block in kWaiting for the caller to fill before it tells anyone the block's tag. Null when
  // all are in use, or without memory for the fork handler at the first call.
  QUORVEL_HIDDEN CallableBlock* Acquire() noexcept;

  // What the library's callback gets for this block.
  void* TagOf(const CallableBlock& block) const noexcept {
    const auto index = static_cast<std::uintptr_t>(&block - blocks_);
    return reinterpret_cast<void*>((block.generation << kTagIndexBits) | index);
  }

  // Runs the tag's callable unless its watch has been ended. Monitor thread.
  void Call(void* tag) noexcept {
    if (CallableBlock* block = BeginCall(tag)) {
      block->call(block->storage);
      FinishCall(block);
    }
  }

  // Whether the block was acquired by the process that this one was forked from.
  bool IsInherited(const CallableBlock& block) const noexcept {
    return block.process.load(std::memory_order_relaxed) !=
           process_.load(std::memory_order_relaxed);
  }

  // After this the callable does not run any more and has been destroyed. It waits for one that is
  // running on another thread; called from the callable itself it does not wait, and the callable
  // is destroyed when it has returned. Returns whether the callable was called. Once for each
  // Acquire.
  bool Close(CallableBlock* block) noexcept;

 private:
  class Lock {
   public:
    explicit Lock(pthread_mutex_t* mutex) noexcept : mutex_(mutex) { pthread_mutex_lock(mutex_); }
    ~Lock() { pthread_mutex_unlock(mutex_); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

   private:
    pthread_mutex_t* const mutex_;
  };

  CallableBlock* BeginCall(void* tag) noexcept;
  void FinishCall(CallableBlock* block) noexcept;
  void AwaitReturn(CallableBlock* block) noexcept;
  void DestroyAndFree(CallableBlock* block) noexcept;
  void PushFree(CallableBlock* block) noexcept;
  QUORVEL_HIDDEN bool RegisterForkHandler() noexcept;
  void ResetInChild() noexcept;

  pthread_mutex_t lock_ = PTHREAD_MUTEX_INITIALIZER;
  pthread_once_t once_ = PTHREAD_ONCE_INIT;
  std::atomic<std::uint32_t> process_{0};  // 0: no fork handler yet; a fork adds 1
  std::atomic<std::uint32_t> returns_{0};  // callables that have returned; awaited as a futex
  std::uint32_t waiting_ = 0;              // threads in AwaitReturn
  std::uint16_t first_free_ = 0;           // index + 1; 0: none
  std::uint16_t used_ = 0;                 // blocks from here on were never used
  CallableBlock blocks_[kCallableBlocks] = {};
};

// Constant-initialised and never destroyed: a call may come while the process exits.
static_assert(std::is_trivially_destructible_v<CallableTable>);
QUORVEL_HIDDEN inline CallableTable g_callables;

// The library's callback for every watch with a callable. A callable that throws ends the process,
// as an exception on the monitor thread would.
QUORVEL_HIDDEN inline void CallTagged(void* tag) noexcept {
  g_callables.Call(tag);
}

template <class F>
inline constexpr bool kFitsBlock = sizeof(F) <= kSmallCallableBytes &&
                                   alignof(std::max_align_t) % alignof(F) == 0;

// Moves the callable into the block; false without memory for a large one.
template <class F>
bool FillBlock(CallableBlock* block, F&& callable) noexcept {
  static_assert(std::is_nothrow_move_constructible_v<F>,
                "moving the callable must not throw: capture no constant copies");
  static_assert(std::is_object_v<F>, "from an rvalue");
  if constexpr (kFitsBlock<F>) {
    ::new (static_cast<void*>(block->storage)) F(std::forward<F>(callable));
    block->call = [](void* storage) {
      static_cast<void>((*std::launder(static_cast<F*>(storage)))());
    };
    block->destroy = [](void* storage) { std::launder(static_cast<F*>(storage))->~F(); };
    if (std::is_trivially_destructible_v<F>) block->destroy = nullptr;
    return true;
  } else {
    F* const moved = ::new (std::nothrow) F(std::forward<F>(callable));
    if (moved == nullptr) return false;
    ::new (static_cast<void*>(block->storage)) F*(moved);
    block->call = [](void* storage) {
      static_cast<void>((**std::launder(static_cast<F**>(storage)))());
    };
    block->destroy = [](void* storage) { ::delete *std::launder(static_cast<F**>(storage)); };
    return true;
  }
}

inline CallableBlock* CallableTable::Acquire() noexcept {
  if (process_.load(std::memory_order_acquire) == 0 && !RegisterForkHandler()) return nullptr;
  const Lock lock(&lock_);
  CallableBlock* block = nullptr;
  if (first_free_ != 0) {
    block = &blocks_[first_free_ - 1];
    first_free_ = block->next_free;
  } else if (used_ < kCallableBlocks) {
    block = &blocks_[used_++];
  } else {
    return nullptr;
  }
  block->table = this;
  ++block->generation;
  block->destroy = nullptr;
  block->process.store(process_.load(std::memory_order_relaxed), std::memory_order_relaxed);
  block->state.store(BlockState::kWaiting, std::memory_order_release);
  return block;
}

inline CallableBlock* CallableTable::BeginCall(void* tag) noexcept {
  CallableBlock* const block =
      &blocks_[reinterpret_cast<std::uintptr_t>(tag) & (kCallableBlocks - 1)];
  const Lock lock(&lock_);
  if (block->state.load(std::memory_order_relaxed) != BlockState::kWaiting) return nullptr;
  if (TagOf(*block) != tag) return nullptr;
  block->runner = pthread_self();
  block->state.store(BlockState::kRunning, std::memory_order_release);
  return block;
}

inline void CallableTable::FinishCall(CallableBlock* block) noexcept {
  bool abandoned = false;
  bool awaited = false;
  {
    const Lock lock(&lock_);
    abandoned = block->state.load(std::memory_order_relaxed) == BlockState::kAbandoned;
    block->state.store(abandoned ? BlockState::kClosed : BlockState::kReturned,
                       std::memory_order_release);
    returns_.fetch_add(1, std::memory_order_relaxed);
    awaited = waiting_ != 0;
  }
  if (abandoned) DestroyAndFree(block);
  if (awaited) syscall(SYS_futex, &returns_, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

inline bool CallableTable::Close(CallableBlock* block) noexcept {
  bool called = false;
  {
    const Lock lock(&lock_);
    if (block->state.load(std::memory_order_relaxed) == BlockState::kRunning) {
      if (pthread_equal(block->runner, pthread_self()) != 0) {
        block->state.store(BlockState::kAbandoned, std::memory_order_release);
        return true;
      }
      AwaitReturn(block);
    }
    const BlockState state = block->state.load(std::memory_order_relaxed);
    if (state == BlockState::kClosed) return true;  // see ResetInChild
    called = state == BlockState::kReturned;
    block->state.store(BlockState::kClosed, std::memory_order_release);
    if (block->destroy == nullptr) {
      PushFree(block);
      return called;
    }
  }
  DestroyAndFree(block);
  return called;
}

// Called and left with the lock held. A futex, because the wait on a condition variable is a
// cancellation point, and a destructor must not be left by cancellation.
inline void CallableTable::AwaitReturn(CallableBlock* block) noexcept {
  const int saved_errno = errno;
  ++waiting_;
  while (block->state.load(std::memory_order_relaxed) == BlockState::kRunning) {
    const std::uint32_t seen = returns_.load(std::memory_order_relaxed);
    pthread_mutex_unlock(&lock_);
    syscall(SYS_futex, &returns_, FUTEX_WAIT_PRIVATE, seen, nullptr, nullptr, 0);
    pthread_mutex_lock(&lock_);
  }
  --waiting_;
  errno = saved_errno;
}

// For a block in kClosed.
inline void CallableTable::DestroyAndFree(CallableBlock* block) noexcept {
  if (block->destroy != nullptr) block->destroy(block->storage);
  const Lock lock(&lock_);
  PushFree(block);
}

inline void CallableTable::PushFree(CallableBlock* block) noexcept {
  block->state.store(BlockState::kFree, std::memory_order_release);
  block->next_free = first_free_;
  first_free_ = static_cast<std::uint16_t>(block - blocks_ + 1);
}

inline bool CallableTable::RegisterForkHandler() noexcept {
  pthread_once(&once_, [] {
    if (pthread_atfork(nullptr, nullptr, [] { g_callables.ResetInChild(); }) == 0) {
      g_callables.process_.store(1, std::memory_order_release);
    }
  });
  return process_.load(std::memory_order_acquire) != 0;
}

// In the child of a fork, whose one thread may have forked while another held the lock: the free
// list is built again from the states. A callable that was running on a thread that the child does
// not have will never return there: nobody waits for it, and its block stays closed. The others
// are destroyed in the child when their watches are.
inline void CallableTable::ResetInChild() noexcept {
  lock_ = PTHREAD_MUTEX_INITIALIZER;
  process_.fetch_add(1, std::memory_order_relaxed);
  waiting_ = 0;
  first_free_ = 0;
  for (std::uint16_t i = used_; i-- > 0;) {
    CallableBlock* const block = &blocks_[i];
    const BlockState state = block->state.load(std::memory_order_relaxed);
    if (state == BlockState::kFree) PushFree(block);
    if (state != BlockState::kRunning && state != BlockState::kAbandoned) continue;
    if (pthread_equal(block->runner, pthread_self()) == 0) {
      block->state.store(BlockState::kClosed, std::memory_order_relaxed);
    }
  }
}

#undef QUORVEL_HIDDEN

}  // namespace detail
}  // namespace quorvel

#endif  // QUORVEL_DETAIL_CALLABLE_TABLE_HPP_
