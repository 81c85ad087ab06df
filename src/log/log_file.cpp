#include "log/log_file.h"

#include <android-base/unique_fd.h>
#include <android/log.h>
#include <device_path.h>
#include <errno.h>
#include <fcntl.h>
#include <quorvel/quorvel.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <new>

#include "base/bounds_checked.h"
#include "log/log_tag.h"
#include "log/quorvel_log.h"

namespace {

constexpr useconds_t kPauseMicros = 5000;
constexpr int kLockTests = 3;
constexpr int kMaxLockCycles = 100;  // half a second, if the lock is created again and again
constexpr int kOpenAttempts = 4;
constexpr int kMaxLogFiles = 10;
constexpr mode_t kLockMode = 0600;
constexpr mode_t kCreateMode = 0640;
constexpr mode_t kLogMode = 0644;

// Never destroyed: the monitor thread may be inside an incident while another thread runs the exit
// handlers of the process.
const std::string& LogDir = *new std::string(DevicePath("/data/log/reliability/quorvel/"));
const std::string& VendorLogDir =
    *new std::string(DevicePath("/data/vendor/log/reliability/quorvel/"));
const std::string& LockFileName = *new std::string("/.lock");
std::string& LogPath = *new std::string;

bool Exists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

void Pause() {
  usleep(kPauseMicros);
}

int OpenRetrying(const std::string& path, int flags, mode_t mode) {
  int fd;
  do {
    fd = open(path.c_str(), flags | O_CLOEXEC, mode);
  } while (fd == -1 && errno == EINTR);
  return fd;
}

void LogStepFailure(const char* step, const char* what) {
  __android_log_print(ANDROID_LOG_ERROR, kLogTag, "%s%s fail, %d\n", step, what, errno);
}

// Of a path that ends in a slash, lstat and O_NOFOLLOW would follow the symbolic link.
std::string WithoutSlash(const std::string& dir) {
  return dir.substr(0, dir.size() - 1);
}

bool DirectoryReady(const std::string& dir) {
  struct stat st;
  if (lstat(WithoutSlash(dir).c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return true;
  __android_log_print(ANDROID_LOG_ERROR, kLogTag, "log path %s, not ready, skip logging...\n",
                      dir.c_str());
  return false;
}

// Waits until the lock file is gone. One that is still there at the fifth test, after 20 ms, was
// left by a process that died, and is removed. False, with errno, when it cannot be removed or is
// created again and again.
bool WaitForLockToGo(const std::string& lock_path) {
  for (int test = 0; test < kLockTests; ++test) {
    if (test != 0) Pause();
    if (!Exists(lock_path)) return true;
  }
  Pause();
  for (int cycle = 0; cycle < kMaxLockCycles; ++cycle) {
    if (!Exists(lock_path)) return true;
    Pause();
    if (!Exists(lock_path)) continue;
    if (unlink(lock_path.c_str()) != 0 && errno != ENOENT) return false;
  }
  errno = EBUSY;
  return false;
}

// Follows no symbolic link, as it must not create anything outside the directory.
void GetStorageLock(const std::string& lock_path) {
  int fd = -1;
  if (WaitForLockToGo(lock_path))
    fd = OpenRetrying(lock_path, O_RDWR | O_CREAT | O_NOFOLLOW, kLockMode);
  if (fd == -1) {
    LogStepFailure(__func__, "");
    return;
  }
  close(fd);
}

void ReleaseStorageLock(const std::string& lock_path) {
  if (Exists(lock_path)) unlink(lock_path.c_str());
}

// Lists and removes relative to one descriptor, so that only files of this directory are removed,
// even if its path is replaced during the call, and the host's working directory stays as it is.
void CleanUpOldLog(const std::string& dir) {
  struct dirent** entries = nullptr;
  const android::base::unique_fd dir_fd(
      OpenRetrying(WithoutSlash(dir), O_RDONLY | O_DIRECTORY | O_NOFOLLOW, 0));
  const int count = dir_fd == -1 ? -1 : scandirat(dir_fd, ".", &entries, LogFilter, LogCompar);
  if (count == -1) {
    LogStepFailure(__func__, " scandir");
    return;
  }
  for (int i = 0; i < count; ++i) {
    if (i <= count - kMaxLogFiles) {
      unlinkat(dir_fd, entries[i]->d_name, 0);
      __android_log_print(ANDROID_LOG_INFO, kLogTag, "delete %s\n", entries[i]->d_name);
    }
    free(entries[i]);
  }
  free(entries);
}

// Names sort by age as long as the seconds have ten digits, that is until the year 2286.
std::string NewLogPath(const std::string& dir) {
  struct timeval now = {};
  gettimeofday(&now, nullptr);
  char name[64];
  const int length =
      snprintf_s(name, sizeof(name), sizeof(name) - 1, "quorvel@%ld%03ld.log",
                 static_cast<long>(now.tv_sec), static_cast<long>(now.tv_usec / 1000));
  return length < 0 ? std::string() : dir + name;
}

// Creates a file that did not exist: exclusively, because two processes may pass the lock together
// and choose the same millisecond. Returns the descriptor, or -1 with errno: EEXIST if every
// attempt met an existing name, else that of the open. path is that of the last attempt.
int OpenLogPath(const std::string& dir, std::string* path) {
  for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
    *path = NewLogPath(dir);
    if (!Exists(*path)) {
      const int fd =
          OpenRetrying(*path, O_RDWR | O_CREAT | O_EXCL | O_TRUNC | O_NOFOLLOW, kCreateMode);
      if (fd != -1 || errno != EEXIST) return fd;
    }
    Pause();
  }
  errno = EEXIST;
  return -1;
}

// Returns the descriptor of the new log file, or -1.
int OpenLog(const std::string& dir) {
  if (!DirectoryReady(dir)) return -1;
  const std::string lock_path = dir + LockFileName;
  std::string path;
  GetStorageLock(lock_path);
  CleanUpOldLog(dir);
  const int fd = OpenLogPath(dir, &path);
  const int open_errno = errno;
  ReleaseStorageLock(lock_path);
  if (fd == -1) {
    if (open_errno != EEXIST) {
      __android_log_print(ANDROID_LOG_ERROR, kLogTag, "%s: open %s fail, %d\n", "OpenLogPath",
                          path.c_str(), open_errno);
    }
    return -1;
  }
  LogPath = path;
  fchmod(fd, kLogMode);
  return fd;
}

}  // namespace

void QuorvelInitLog(int flags, bool isVendor) {
  QuorvelBeginLog(flags);
  const bool wants_file = (static_cast<uint32_t>(flags) & QUORVEL_FLAG_LOG) != 0;
  QuorvelSetLogFd(wants_file ? OpenLog(isVendor ? VendorLogDir : LogDir) : -1);
}

const std::string& QuorvelLastLogPath() {
  return LogPath;
}

// Constructed again in place and not destroyed before: at the fork the parent's monitor may have
// been changing it.
void QuorvelForgetLogPathInChild() {
  new (&LogPath) std::string;
}

int LogFilter(const dirent* entry) {
  return entry != nullptr && entry->d_name[0] != '.' && entry->d_type == DT_REG ? 1 : 0;
}

int LogCompar(const dirent** a, const dirent** b) {
  return strcmp((*a)->d_name, (*b)->d_name);
}
