#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>
#include <device_path.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/system_properties.h>
#include <unistd.h>

#include <string>

namespace {

constexpr size_t kMaxValue = PROP_VALUE_MAX - 1;
constexpr mode_t kPropertyMode = 0644;

std::string StorePath(const std::string& name) {
  return DevicePath("/dev/__properties__/") + name;
}

bool ValidName(const char* name) {
  return name != nullptr && name[0] != '\0' && strchr(name, '/') == nullptr;
}

bool IsReadOnly(const char* name) {
  return strncmp(name, "ro.", 3) == 0;
}

// A file of this thread alone, to become the property's once it is whole.
std::string TemporaryPath() {
  return StorePath(android::base::StringPrintf(".new.%d.%d", getpid(), gettid()));
}

bool WriteWhole(const std::string& path, const char* value) {
  unlink(path.c_str());  // left by a process that died
  const android::base::unique_fd fd(static_cast<int>(TEMP_FAILURE_RETRY(
      open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kPropertyMode))));
  return fd != -1 && android::base::WriteStringToFd(value, fd) && fsync(fd) == 0;
}

// A "ro." property is linked, which fails where the name is taken; others replace.
bool Publish(const std::string& temporary, const char* name) {
  const std::string path = StorePath(name);
  if (!IsReadOnly(name)) return rename(temporary.c_str(), path.c_str()) == 0;
  return link(temporary.c_str(), path.c_str()) == 0;
}

}  // namespace

int __system_property_get(const char* name, char* value) {
  value[0] = '\0';
  if (!ValidName(name)) return 0;
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
  if (!ValidName(name)) return -1;
  if (value == nullptr) value = "";
  if (strlen(value) > kMaxValue) return -1;
  const std::string temporary = TemporaryPath();
  const bool set = WriteWhole(temporary, value) && Publish(temporary, name);
  if (!set || IsReadOnly(name)) unlink(temporary.c_str());
  return set ? 0 : -1;
}
