#include "log/incident_close.h"

#include <android/log.h>
#include <cutils/trace.h>
#include <kelvane.h>
#include <quorvel/quorvel.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "base/bounds_checked.h"
#include "log/log_file.h"
#include "log/log_tag.h"
#include "log/quorvel_log.h"

namespace {

constexpr int kHangEvent = 12;  // the service's number for this library
constexpr int kConfigSize = 512;

void CloseLog() {
  const int fd = QuorvelGetLogFd();
  if (fd < 0) return;
  fsync(fd);
  QuorvelSetLogFd(-1);  // before the number can be reused
  close(fd);
}

// Only the first character of the service's configuration counts.
bool IsEventSwitchedOn() {
  char config[kConfigSize];
  memset_s(config, sizeof(config), 0, sizeof(config));
  if (dravik_get_config(kHangEvent, config, kConfigSize) != 0) {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "get dravik config fail, skip...\n");
    return false;
  }
  return config[0] == '1';
}

std::string EventMessage(const std::string& program) {
  const std::string& path = QuorvelLastLogPath();
  return path.empty() ? program : program + "," + path;
}

std::string EventCommand(const std::string& program) {
  if ((static_cast<uint32_t>(QuorvelGetLogFlags()) & QUORVEL_FLAG_SYSTRACE) == 0) return "";
  return "Z=copy_systrace_to_cache+quorvel+" + program;
}

// A section that ends as soon as it begins. Each of the two calls tests whether the tag is enabled.
void LeaveTraceMarker(const std::string& program) {
  const std::string text = "quorvel_event_sync :pid=" + std::to_string(getpid()) +
                           " currTime=" + std::to_string(time(nullptr)) + " module=" + program;
  atrace_begin(ATRACE_TAG_HAL, text.c_str());
  atrace_end(ATRACE_TAG_HAL);
}

}  // namespace

void QuorvelEndLog() {
  CloseLog();
  if (!IsEventSwitchedOn()) return;
  const char* name = getprogname();
  if (name == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "get progname is nullptr\n");
    return;
  }
  const std::string program = name;
  LeaveTraceMarker(program);
  dravik_send_event(kHangEvent, EventCommand(program).c_str(), EventMessage(program).c_str());
}
