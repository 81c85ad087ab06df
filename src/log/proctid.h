// Lists the threads of a process, from its task directory under /proc.
//
// Any thread; no shared state. The list is a snapshot: a thread that starts or ends during the call
// may or may not be in it. A failure is reported through the platform's logging facility, and errno
// is then that of the failing step.
#ifndef QUORVEL_LOG_PROCTID_H_
#define QUORVEL_LOG_PROCTID_H_

#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <android/log.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <set>
#include <type_traits>

#include "base/bounds_checked.h"
#include "log/log_tag.h"

namespace proctid {

constexpr int kOpenFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
constexpr size_t kPathSize = 4096;
constexpr size_t kMaxIdText = 15;  // more than any int has

// Reads the name of a task directory's entry as a thread id: decimal, or hexadecimal after "0x",
// with any white space before it. False, with errno EINVAL or ERANGE, for anything else.
inline bool ParseTid(const char* name, int* tid) {
  const char* digits = name + strspn(name, " \t\n\v\f\r");
  const bool hex = digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X');
  char* end = nullptr;
  errno = 0;
  const long long value = strtoll(digits, &end, hex ? 16 : 10);
  if (errno != 0) return false;
  if (end == digits || *end != '\0') {
    errno = EINVAL;
    return false;
  }
  if (value < 1 || value > INT_MAX) {
    errno = ERANGE;
    return false;
  }
  *tid = static_cast<int>(value);
  return true;
}

struct DirCloser {
  DIR* dir;
  ~DirCloser() {
    const int saved = errno;
    closedir(dir);
    errno = saved;
  }
};

}  // namespace proctid

// Fills out with the ids of all threads of a process.
//   fd   its /proc/<pid> directory, which stays the caller's
//   out  holds the ids read so far on failure; empty if the task directory cannot be opened
// Returns whether all of them were read.
template <typename Collection>
typename std::enable_if<(sizeof(typename Collection::value_type) >= sizeof(int)), bool>::type
GetProcessTidsFromProcPidFd(int fd, Collection* out) {
  out->clear();
  const int task_fd = static_cast<int>(TEMP_FAILURE_RETRY(openat(fd, "task", proctid::kOpenFlags)));
  DIR* dir = task_fd == -1 ? nullptr : fdopendir(task_fd);
  if (dir == nullptr) {
    const android::base::unique_fd close_unstreamed(task_fd);
    PLOG(ERROR) << "failed to open task directory";
    return false;
  }
  const proctid::DirCloser closer{dir};
  while (const dirent* entry = readdir(dir)) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    int tid;
    if (!proctid::ParseTid(entry->d_name, &tid)) {
      LOG(ERROR) << "failed to parse task id: " << entry->d_name;
      return false;
    }
    out->insert(out->end(), tid);
  }
  return true;
}

// The same for a process id. If /proc/<pid> cannot be opened, out stays as it was.
template <typename Collection>
typename std::enable_if<(sizeof(typename Collection::value_type) >= sizeof(int)), bool>::type
GetProcessTids(int pid, Collection* out) {
  char path[proctid::kPathSize] = {};
  if (snprintf_s(path, sizeof(path), sizeof(path) - 1, "/proc/%d", pid) == -1) {
    LOG(ERROR) << "task path overflow (pid = " << pid << ")";
    return false;
  }
  const android::base::unique_fd fd(
      static_cast<int>(TEMP_FAILURE_RETRY(open(path, proctid::kOpenFlags))));
  if (fd == -1) {
    PLOG(ERROR) << "failed to open " << path;
    return false;
  }
  return GetProcessTidsFromProcPidFd(fd.get(), out);
}

// Whether /proc shows another process under the id of this one. It does so in a pid namespace that
// has no /proc of its own.
inline bool QuorvelProcIsOfAnotherNamespace() {
  char self[proctid::kMaxIdText + 1] = {};
  int pid = 0;
  const bool visible = readlink("/proc/self", self, proctid::kMaxIdText) > 0;
  if (visible && proctid::ParseTid(self, &pid) && pid == getpid()) return false;
  char path[proctid::kPathSize] = {};
  snprintf_s(path, sizeof(path), sizeof(path) - 1, "/proc/%d", getpid());
  return access(path, F_OK) == 0;
}

// Fills tids with the threads of this process except the calling one and tid. False, with a
// message, when they cannot be listed; nothing is listed from the /proc of another pid namespace,
// whose ids are those of other threads.
inline bool QuorvelListOtherThreads(int tid, std::set<int>* tids) {
  const bool foreign = QuorvelProcIsOfAnotherNamespace();
  if (foreign) {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                        "/proc/%d is another process, /proc belongs to another pid namespace\n",
                        getpid());
  }
  if (foreign || !GetProcessTids(getpid(), tids)) {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "Fail to get tids in pid %d\n", getpid());
    return false;
  }
  tids->erase(gettid());
  tids->erase(tid);
  return true;
}

#endif  // QUORVEL_LOG_PROCTID_H_
