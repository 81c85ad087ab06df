// The start flags of quorvel.h as a type of their own, so that a timeout, a bool or a pointer is
// not mistaken for them:
//
//     quorvel::kLog | quorvel::kBacktrace
//     QUORVEL_FLAG_LOG | QUORVEL_FLAG_BACKTRACE  // converts
#ifndef QUORVEL_FLAGS_HPP_
#define QUORVEL_FLAGS_HPP_

#include <quorvel/quorvel.h>

#include <cstdint>
#include <type_traits>

namespace quorvel {

class Flags {
 public:
  constexpr Flags() noexcept = default;

  // From the C constants, whose type is exactly this one.
  template <class Bits, std::enable_if_t<std::is_same_v<Bits, std::uint32_t>, int> = 0>
  constexpr Flags(Bits bits) noexcept : bits_(bits) {}

  constexpr std::uint32_t bits() const noexcept { return bits_; }

  friend constexpr Flags operator|(Flags a, Flags b) noexcept { return Flags(a.bits_ | b.bits_); }
  friend constexpr bool operator==(Flags a, Flags b) noexcept { return a.bits_ == b.bits_; }
  friend constexpr bool operator!=(Flags a, Flags b) noexcept { return a.bits_ != b.bits_; }

 private:
  std::uint32_t bits_ = 0;
};

// What each does is described at its constant in quorvel.h.
inline constexpr Flags kLog{QUORVEL_FLAG_LOG};
inline constexpr Flags kBacktrace{QUORVEL_FLAG_BACKTRACE};
inline constexpr Flags kRecovery{QUORVEL_FLAG_RECOVERY};
inline constexpr Flags kSystrace{QUORVEL_FLAG_SYSTRACE};

}  // namespace quorvel

#endif  // QUORVEL_FLAGS_HPP_
