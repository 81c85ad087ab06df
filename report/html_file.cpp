#include "html_file.h"

#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

namespace report {
namespace {

constexpr size_t kBufferSize = 256 * 1024;
constexpr mode_t kNewFileMode = 0666;  // less the process's umask
constexpr mode_t kPermissionBits = 0777;
constexpr int kNameTries = 100;

}  // namespace

ReplacedFile::ReplacedFile(const std::string& path) {
  struct stat old = {};
  if (!Resolve(path)) return;
  const bool exists = stat(target_.c_str(), &old) == 0;
  if (exists && !S_ISREG(old.st_mode)) {
    error_ = fmt::format("{} is no regular file, and is left as it is", target_);
    return;
  }
  for (int i = 0; i < kNameTries && fd_ == -1; ++i) {
    temporary_ = fmt::format("{}.{}-{}.tmp", target_, getpid(), i);
    fd_ = open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kNewFileMode);
    if (fd_ == -1 && errno != EEXIST) break;
  }
  if (fd_ == -1) {
    Fail("open", temporary_);
    temporary_.clear();
  } else if (exists && fchmod(fd_, old.st_mode & kPermissionBits) == -1) {
    Fail("fchmod", temporary_);
  }
}

ReplacedFile::~ReplacedFile() {
  if (fd_ != -1) close(fd_);
  if (!temporary_.empty()) unlink(temporary_.c_str());
}

// A symbolic link stays one: what it names is replaced.
bool ReplacedFile::Resolve(const std::string& path) {
  const std::unique_ptr<char, void (*)(void*)> real(realpath(path.c_str(), nullptr), free);
  target_ = real ? real.get() : path;
  struct stat link = {};
  if (real || lstat(path.c_str(), &link) == -1) return true;
  Fail("realpath", path);  // it exists, but leads nowhere
  return false;
}

void ReplacedFile::Write(std::string_view text) {
  if (!error_.empty()) return;
  buffer_ += text;
  if (buffer_.size() >= kBufferSize) Flush();
}

void ReplacedFile::Flush() {
  std::string_view rest = buffer_;
  while (!rest.empty() && error_.empty()) {
    const ssize_t count = write(fd_, rest.data(), rest.size());
    if (count >= 0) {
      rest.remove_prefix(static_cast<size_t>(count));
    } else if (errno != EINTR) {
      Fail("write", temporary_);
    }
  }
  buffer_.clear();
}

bool ReplacedFile::Commit(std::string* error) {
  Flush();
  if (error_.empty() && fsync(fd_) == -1) Fail("fsync", temporary_);
  if (error_.empty() && rename(temporary_.c_str(), target_.c_str()) == -1) Fail("rename", target_);
  if (error_.empty()) temporary_.clear();
  *error = error_;
  return error_.empty();
}

void ReplacedFile::Fail(const char* call, const std::string& file) {
  error_ = fmt::format("{} {}: {}", call, file, strerror(errno));
}

}  // namespace report
