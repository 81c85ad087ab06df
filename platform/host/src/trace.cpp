#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <cutils/trace.h>
#include <device_path.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

namespace {

void WriteMarker(const std::string& text) {
  const std::string path = DevicePath("/sys/kernel/tracing/trace_marker");
  const android::base::unique_fd fd(static_cast<int>(
      TEMP_FAILURE_RETRY(open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC | O_NONBLOCK))));
  if (fd != -1) android::base::WriteStringToFd(text, fd);
}

}  // namespace

uint64_t atrace_get_enabled_tags() {
  return strtoull(android::base::GetProperty("debug.atrace.tags.enableflags", "0").c_str(), nullptr,
                  0);
}

// Only the inline functions of the header call these, and it declares them only there.
extern "C" {

void atrace_begin_body(const char* name) {
  WriteMarker("B|" + std::to_string(getpid()) + "|" + name + "\n");
}

void atrace_end_body(void) {
  WriteMarker("E|" + std::to_string(getpid()) + "\n");
}

}  // extern "C"
