// A watch in C++: it ends with its scope, and calls anything that can be called.
//
//     using namespace std::chrono_literals;
//
//     {
//       quorvel::Watch watch("flush-db", 10s, [this] { OnHang(); },
//                            quorvel::kLog | quorvel::kBacktrace);
//       FlushDb();  // must not take 10 seconds
//     }             // ended here, on every way out
//
// The arguments come in the order of __quorvel_start_ex. quorvel_init must have been called, and
// name and flags follow the rules of quorvel.h.
//
// The callable, and all that it captures, lives as long as it can be called:
//   - End, and the destructor, return when it will not be called any more: they cancel a call that
//     has not begun, and wait for one that is running to return, as joining a thread would. So a
//     lambda may capture `this` of an object that has the watch as its last member. Hold no lock
//     around End that the callable locks.
//   - Called from the callable itself, End does not wait. The callable may destroy its watch, or
//     assign another to it; it is destroyed itself after it has returned. Nobody waits for that any
//     more: what it still uses must be kept alive by other means.
//   - It is destroyed by the End, on the thread that calls it.
//   - When the rate limit drops the incident nobody ever calls it: End finds that out and destroys
//     it. Nothing leaks.
//   - It is called before the incident's stacks are written. One that makes the work go on hides
//     what hung: use a second watch for that, which expires a second later.
//   - A watch may be moved at any time, also while its callable runs.
//   - In the child of a fork a watch that it inherited is the parent's: End has no effect on
//     the library there, never waits, and destroys the child's copy of the callable, unless it was
//     running in the parent at the fork. A watch without a callable, ended after the child's own
//     quorvel_init, is logged there as released already.
//     This does not hold in a fork handler that was registered before the first watch with a
//     callable was made: end no watch there.
//
// The callable runs on the library's monitor thread, as QuorvelCallback in quorvel.h says, with no
// lock of this header held. It must not throw: that ends the process.
//
// Threads: a Watch belongs to one thread at a time, which may be the monitor's while the callable
// runs: from when the owner has constructed or assigned it until the owner uses it again. fired and
// state alone may be called by several threads at once.
//
// Costs: a watch without a callable is the two calls of C. With one, its end makes one call more,
// and a callable of up to 48 bytes is kept without an allocation; a larger one takes one. At most
// 256 callables are held at once by each program or shared object; in the child of a fork that
// includes those of the parent's other threads. Needs C++17, but neither exceptions nor run-time
// type information.
//
// A shared object that is unloaded: its watches with callables must have ended as kEnded or kFired.
// After kExpired the library may still be about to call into it; link it with -z nodelete.
#ifndef QUORVEL_WATCH_HPP_
#define QUORVEL_WATCH_HPP_

#include <quorvel/quorvel.h>
#include <quorvel/detail/callable_table.hpp>
#include <quorvel/flags.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

namespace quorvel {

inline constexpr std::chrono::seconds kMinTimeout{1};
inline constexpr std::chrono::seconds kMaxTimeout{60};

namespace detail {

// A null function pointer and an empty std::function are no callables.
template <class F, class = void>
struct CanBeEmpty : std::is_pointer<F> {};
template <class F>
struct CanBeEmpty<F, std::void_t<decltype(std::declval<const F&>().operator bool())>>
    : std::true_type {};

template <class F>
bool IsEmpty(const F& callable) noexcept {
  if constexpr (CanBeEmpty<F>::value) return !static_cast<bool>(callable);
  return false;
}

}  // namespace detail

class [[nodiscard]] Watch {
 public:
  // A watch's states. The deadline passes unseen by its owner; what the library does then shows
  // when it calls the callable, or at the end.
  //
  //     kNone --- constructor ---> kRefusedTimeout, kRefusedCallable, kRefused
  //       |
  //       | constructor
  //       v
  //     kArmed --- End, deadline not passed -----------------------> kEnded
  //       |  \---- End, deadline passed, callable not called ------> kExpired
  //       |
  //       | the library calls the callable
  //       v
  //     kCalled --- End, which waits while the callable runs ------> kFired
  enum class State : std::uint8_t {
    kNone,             // default-constructed, moved from, or the copy in a forked child, ended
    kRefusedTimeout,   // timeout outside 1 to 60 seconds
    kRefusedCallable,  // 256 callables are held already, or no memory for a large one
    kRefused,          // by the library: not initialised, or 128 watches armed (which it logs)
    kArmed,            // not ended; the callable has not been called
    kCalled,           // not ended; the callable has been called, and may be running
    kEnded,            // ended before the library found it expired; without a callable: ended
    kExpired,          // ended too late; the callable was not called and will not be: the rate
                       // limit dropped it, or its turn had not come
    kFired,            // ended; the callable was called
  };

  Watch() noexcept = default;

  // Arms a watch without a callable. A timeout outside 1 to 60 seconds, however large, is refused:
  // see state. The work may go on after a refusal, unwatched.
  [[nodiscard]] Watch(const char* name, std::chrono::seconds timeout, Flags flags = {}) noexcept
      : Watch(name, timeout, nullptr, nullptr, flags) {}

  // Arms a watch with the callback of C. Its calls are not known to the watch, and the lifetime of
  // arg is the caller's, as quorvel_end says.
  [[nodiscard]] Watch(const char* name, std::chrono::seconds timeout, QuorvelCallback callback,
                      void* arg, Flags flags = {}) noexcept {
    if (!IsTimeout(timeout)) {
      state_ = State::kRefusedTimeout;
      return;
    }
    Start(name, timeout, callback, arg, flags);
  }

  // Arms a watch that calls callable() when it expires. The result is ignored. An empty one (a null
  // function pointer, a std::function without a target) counts as none.
  template <class F, std::enable_if_t<std::is_invocable_v<F&>, int> = 0>
  [[nodiscard]] Watch(const char* name, std::chrono::seconds timeout, F callable,
                      Flags flags = {}) noexcept {
    if (!IsTimeout(timeout)) {
      state_ = State::kRefusedTimeout;
    } else if (detail::IsEmpty(callable)) {
      Start(name, timeout, nullptr, nullptr, flags);
    } else {
      StartWithCallable(name, timeout, std::move(callable), flags);
    }
  }

  // As End: may wait for the callable.
  ~Watch() { End(); }

  Watch(Watch&& other) noexcept
      : block_(std::exchange(other.block_, nullptr)),
        id_(std::exchange(other.id_, QUORVEL_INVALID_ID)),
        state_(std::exchange(other.state_, State::kNone)) {}

  // Ends this watch first, which may wait for its callable.
  Watch& operator=(Watch&& other) noexcept {
    if (this == &other) return *this;
    End();
    block_ = std::exchange(other.block_, nullptr);
    id_ = std::exchange(other.id_, QUORVEL_INVALID_ID);
    state_ = std::exchange(other.state_, State::kNone);
    return *this;
  }

  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  // Moves the deadline to timeout from now. False, with everything as it was, for a timeout outside
  // 1 to 60 seconds and for a watch that has expired or is not armed.
  bool Update(std::chrono::seconds timeout) noexcept {
    if (!armed() || !IsTimeout(timeout) || IsInherited()) return false;
    return quorvel_update(id_, static_cast<std::int32_t>(timeout.count())) == id_;
  }

  // Ends the watch before its scope does, and tells how it ended: kEnded, kExpired or kFired. Does
  // nothing for a watch that was refused or has been ended. See the head of this file.
  State End() noexcept {
    if (block_ != nullptr) {
      EndWithCallable();
    } else if (id_ != QUORVEL_INVALID_ID) {
      quorvel_end(std::exchange(id_, QUORVEL_INVALID_ID));
      state_ = State::kEnded;
    }
    return state_;
  }

  State state() const noexcept {
    if (block_ == nullptr) return state_;
    const detail::BlockState state = block_->state.load(std::memory_order_acquire);
    return state == detail::BlockState::kWaiting ? State::kArmed : State::kCalled;
  }

  // Whether the callable has been called; it may still be running. Once the watch is ended, what
  // the callable did can be seen.
  bool fired() const noexcept {
    const State now = state();
    return now == State::kCalled || now == State::kFired;
  }

  // Whether the start was accepted and the watch has not been ended. It may have expired.
  bool armed() const noexcept { return id_ != QUORVEL_INVALID_ID; }

  // For the calls of C; QUORVEL_INVALID_ID while it is not armed.
  std::uint32_t id() const noexcept { return id_; }

 private:
  static bool IsTimeout(std::chrono::seconds timeout) noexcept {
    return timeout >= kMinTimeout && timeout <= kMaxTimeout;
  }

  bool IsInherited() const noexcept {
    return block_ != nullptr && block_->table->IsInherited(*block_);
  }

  void Start(const char* name, std::chrono::seconds timeout, QuorvelCallback callback, void* arg,
             Flags flags) noexcept {
    id_ = __quorvel_start_ex(name, static_cast<std::int32_t>(timeout.count()), callback, arg,
                             flags.bits());
    state_ = armed() ? State::kArmed : State::kRefused;
  }

  template <class F>
  void StartWithCallable(const char* name, std::chrono::seconds timeout, F&& callable,
                         Flags flags) noexcept {
    detail::CallableTable& table = detail::g_callables;
    state_ = State::kRefusedCallable;
    detail::CallableBlock* const block = table.Acquire();
    if (block == nullptr) return;
    if (detail::FillBlock(block, std::forward<F>(callable))) {
      Start(name, timeout, detail::CallTagged, table.TagOf(*block), flags);
    }
    if (armed()) {
      block_ = block;
    } else {
      table.Close(block);
    }
  }

  // An update tells whether the watch is still armed; the end, which does not, is then in time.
  void EndWithCallable() noexcept {
    detail::CallableBlock* const block = std::exchange(block_, nullptr);
    const std::uint32_t id = std::exchange(id_, QUORVEL_INVALID_ID);
    if (block->table->IsInherited(*block)) {
      state_ = State::kNone;
      block->table->Close(block);
      return;
    }
    const bool in_time = quorvel_update(id, static_cast<std::int32_t>(kMaxTimeout.count())) == id;
    if (in_time) quorvel_end(id);
    const bool called = block->table->Close(block);
    state_ = called ? State::kFired : in_time ? State::kEnded : State::kExpired;
  }

  detail::CallableBlock* block_ = nullptr;  // null: no callable, or ended
  std::uint32_t id_ = QUORVEL_INVALID_ID;
  State state_ = State::kNone;  // while block_ is null
};

}  // namespace quorvel

#endif  // QUORVEL_WATCH_HPP_
