// Stand-in for the platform's <android-base/unique_fd.h>: owns a descriptor and closes it, leaving
// errno as it was.
#ifndef QUORVEL_HOST_ANDROID_BASE_UNIQUE_FD_H_
#define QUORVEL_HOST_ANDROID_BASE_UNIQUE_FD_H_

#include <errno.h>
#include <unistd.h>

namespace android {
namespace base {

class unique_fd {
 public:
  unique_fd() = default;
  explicit unique_fd(int fd) : fd_(fd) {}
  ~unique_fd() { reset(); }

  unique_fd(unique_fd&& other) noexcept : fd_(other.release()) {}
  unique_fd& operator=(unique_fd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  unique_fd(const unique_fd&) = delete;
  unique_fd& operator=(const unique_fd&) = delete;

  void reset(int fd = -1) {
    if (fd_ != -1) {
      const int saved = errno;
      close(fd_);
      errno = saved;
    }
    fd_ = fd;
  }

  [[nodiscard]] int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

  int get() const { return fd_; }
  operator int() const { return fd_; }
  bool operator!() const = delete;  // descriptor 0 is valid: compare with -1

 private:
  int fd_ = -1;
};

}  // namespace base
}  // namespace android

#endif  // QUORVEL_HOST_ANDROID_BASE_UNIQUE_FD_H_
