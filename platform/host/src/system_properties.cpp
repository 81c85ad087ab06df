#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>
#include <android/log.h>
#include <device_path.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/system_properties.h>
#include <unistd.h>

#include <atomic>
#include <string>

namespace {

constexpr char kStore[] = "/dev/__properties__/";
constexpr size_t kMaxValue = PROP_VALUE_MAX - 1;
constexpr mode_t kPropertyMode = 0644;

std::string StorePath(const std::string& name) {
  return DevicePath(kStore) + name;
}

bool IsValidName(const char* name) {
  return name != nullptr && name[0] != '\0' && strchr(name, '/') == nullptr;
}

bool IsReadOnly(const char* name) {
  return strncmp(name, "ro.", strlen("ro.")) == 0;
}

// The path of a file of this thread alone, which becomes the property's once it is complete.
std::string TemporaryPath() {
  return StorePath(android::base::StringPrintf(".new.%d.%d", getpid(), gettid()));
}

bool WriteNewFile(const std::string& path, const char* value) {
  unlink(path.c_str());  // left by a process that died
  const android::base::unique_fd fd(static_cast<int>(TEMP_FAILURE_RETRY(
      open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kPropertyMode))));
  return fd != -1 && android::base::WriteStringToFd(value, fd) && fsync(fd) == 0;
}

// A "ro." property is linked, which fails if the name exists; others replace what was there.
bool Publish(const std::string& temporary, const char* name) {
  const std::string path = StorePath(name);
  if (IsReadOnly(name)) return link(temporary.c_str(), path.c_str()) == 0;
  return rename(temporary.c_str(), path.c_str()) == 0;
}

// Once a process. Where the directory is missing, nothing that the library counts outlives it.
void SayNotSet(const char* name, int error) {
  static std::atomic<bool> said{false};
  if (said.exchange(true)) return;
  __android_log_print(
      ANDROID_LOG_WARN, "properties",
      "cannot set %s: %s; properties are files in %s, without which recovery counts no exit", name,
      strerror(error), DevicePath(kStore).c_str());
}

}  // namespace

int __system_property_get(const char* name, char* value) {
  value[0] = '\0';
  if (!IsValidName(name)) return 0;
  const std::string path = StorePath(name);
  const android::base::unique_fd fd(
      static_cast<int>(TEMP_FAILURE_RETRY(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK))));
  if (fd == -1) return 0;
  ssize_t length = TEMP_FAILURE_RETRY(read(fd, value, kMaxValue));
  if (length > 0 && value[length - 1] == '\n') --length;
  value[length > 0 ? length : 0] = '\0';
  return static_cast<int>(strlen(value));
}

int __system_property_set(const char* name, const char* value) {
  if (!IsValidName(name)) return -1;
  const char* const text = value != nullptr ? value : "";
  if (strlen(text) > kMaxValue) return -1;
  const std::string temporary = TemporaryPath();
  const bool set = WriteNewFile(temporary, text) && Publish(temporary, name);
  const int error = errno;
  if (!set || IsReadOnly(name)) unlink(temporary.c_str());
  if (!set && error != EEXIST) SayNotSet(name, error);
  return set ? 0 : -1;
}
