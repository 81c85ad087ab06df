// C++ conveniences over quorvel.h: a watch that ends with its scope.
//
//     {
//       quorvel::Watch watch("flush-db", 10, QUORVEL_FLAG_LOG | QUORVEL_FLAG_BACKTRACE);
//       FlushDb();  // must not take 10 seconds
//     }             // ended here, on every way out
//
// A Watch belongs to one thread at a time. Nothing here throws.
#ifndef QUORVEL_WATCH_HPP_
#define QUORVEL_WATCH_HPP_

#include <quorvel/quorvel.h>

#include <cstdint>

namespace quorvel {

class Watch {
 public:
  // Arms a watch as __quorvel_start_ex does; the same rules hold for every argument. armed() tells
  // whether it was refused: the work may then go on, unwatched.
  Watch(const char* name, std::int32_t timeout_seconds, std::uint32_t flags,
        QuorvelCallback callback = nullptr, void* arg = nullptr) noexcept
      : id_(__quorvel_start_ex(name, timeout_seconds, callback, arg, flags)) {}

  ~Watch() { End(); }

  Watch(Watch&& other) noexcept : id_(other.id_) { other.id_ = QUORVEL_INVALID_ID; }
  Watch& operator=(Watch&& other) noexcept {
    if (this != &other) {
      End();
      id_ = other.id_;
      other.id_ = QUORVEL_INVALID_ID;
    }
    return *this;
  }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  // Moves the deadline to timeout_seconds from now. False when the watch has expired, was ended or
  // was never armed.
  bool Update(std::int32_t timeout_seconds) noexcept {
    return id_ != QUORVEL_INVALID_ID && quorvel_update(id_, timeout_seconds) == id_;
  }

  // Ends the watch before its scope does. Again: nothing happens.
  void End() noexcept {
    if (id_ == QUORVEL_INVALID_ID) return;
    quorvel_end(id_);
    id_ = QUORVEL_INVALID_ID;
  }

  // Whether the start was accepted and the watch was not ended here since. It may have expired.
  bool armed() const noexcept { return id_ != QUORVEL_INVALID_ID; }
  std::uint32_t id() const noexcept { return id_; }

 private:
  std::uint32_t id_;
};

}  // namespace quorvel

#endif  // QUORVEL_WATCH_HPP_
