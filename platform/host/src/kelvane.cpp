// The hang-event library: events go to a journal of JSON lines, kernel stacks come from /proc.

#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>
#include <device_path.h>
#include <errno.h>
#include <fcntl.h>
#include <kelvane.h>
#include <stdlib.h>
#include <string.h>
#include <sys/system_properties.h>
#include <time.h>
#include <unistd.h>

#include <string>

namespace {

using android::base::StringPrintf;

constexpr size_t kStackRoom = 4095;
constexpr mode_t kJournalMode = 0644;

// Length of the UTF-8 sequence that text begins with; 0 if it begins with none. The ranges are
// those of RFC 3629.
size_t Utf8Length(const char* text) {
  const auto byte = [text](size_t i) { return static_cast<unsigned char>(text[i]); };
  const auto follows = [&byte](size_t i, unsigned low = 0x80, unsigned high = 0xBF) {
    return byte(i) >= low && byte(i) <= high;
  };
  const unsigned lead = byte(0);
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return follows(1) ? 2 : 0;
  if (lead >= 0xE0 && lead <= 0xEF) {
    const bool first = follows(1, lead == 0xE0 ? 0xA0 : 0x80, lead == 0xED ? 0x9F : 0xBF);
    return first && follows(2) ? 3 : 0;
  }
  if (lead >= 0xF0 && lead <= 0xF4) {
    const bool first = follows(1, lead == 0xF0 ? 0x90 : 0x80, lead == 0xF4 ? 0x8F : 0xBF);
    return first && follows(2) && follows(3) ? 4 : 0;
  }
  return 0;
}

// The text as a JSON string. Each byte that is not UTF-8 becomes the replacement character.
std::string Quoted(const char* text) {
  std::string out = "\"";
  while (*text != '\0') {
    const size_t length = Utf8Length(text);
    const unsigned char first = static_cast<unsigned char>(*text);
    if (length == 0) {
      out += "\\ufffd";
    } else if (first == '"' || first == '\\') {
      out += {'\\', *text};
    } else if (first < 0x20 || first == 0x7F) {
      out += StringPrintf("\\u%04x", first);
    } else {
      out.append(text, length);
    }
    text += length == 0 ? 1 : length;
  }
  return out + "\"";
}

// Whether the ids under /proc are those that this process knows, not another pid namespace's.
bool ProcHasOwnIds() {
  char self[16] = {};
  return readlink("/proc/self", self, sizeof(self) - 1) > 0 && atoi(self) == getpid();
}

// Reads at most room characters of a thread's file under /proc. False, with errno, when it cannot
// be read.
bool ReadTaskFile(int tid, const char* name, char* text, size_t room) {
  const std::string path = StringPrintf("/proc/self/task/%d/%s", tid, name);
  const android::base::unique_fd fd(
      static_cast<int>(TEMP_FAILURE_RETRY(open(path.c_str(), O_RDONLY | O_CLOEXEC))));
  if (fd == -1) return false;
  size_t used = 0;
  while (used < room) {
    const ssize_t count = read(fd, text + used, room - used);
    if (count == -1 && errno == EINTR) continue;
    if (count == -1) return false;
    if (count == 0) break;
    used += static_cast<size_t>(count);
  }
  text[used] = '\0';
  return true;
}

// What can be said of a thread whose stack the kernel refuses to show: the reason, which is the
// errno `refusal`, the thread's state and what it waits for. False when the thread has ended.
bool DescribeState(int tid, int refusal, char* buffer) {
  char stat[512];
  char channel[128];
  if (!ReadTaskFile(tid, "stat", stat, sizeof(stat) - 1)) return false;
  const char* name_end = strrchr(stat, ')');
  const char state = name_end != nullptr && name_end[1] == ' ' ? name_end[2] : '?';
  const bool waits = ReadTaskFile(tid, "wchan", channel, sizeof(channel) - 1) &&
                     channel[0] != '\0' && strcmp(channel, "0") != 0;
  const std::string text = StringPrintf("[no kernel stack: %s] state %c, wait channel %s\n",
                                        strerror(refusal), state, waits ? channel : "not shown");
  memcpy(buffer, text.c_str(), text.size() + 1);
  return true;
}

}  // namespace

int DravikGetStack(int tid, char* buffer) {
  if (!ProcHasOwnIds()) return -1;
  if (ReadTaskFile(tid, "stack", buffer, kStackRoom)) return 0;
  const int refusal = errno;
  if (refusal == ESRCH) return -1;
  return DescribeState(tid, refusal, buffer) ? 0 : -1;
}

int dravik_get_config(int id, char* buffer, int size) {
  char value[PROP_VALUE_MAX] = {};
  const int length =
      __system_property_get(StringPrintf("dravik.event.%d.config", id).c_str(), value);
  if (length == 0 || length >= size) return -1;
  memcpy(buffer, value, static_cast<size_t>(length) + 1);
  return 0;
}

int dravik_send_event(int id, const char* command, const char* message) {
  const std::string line = StringPrintf("{\"id\":%d,\"pid\":%d,\"time\":%lld,\"command\":", id,
                                        getpid(), static_cast<long long>(time(nullptr))) +
                           Quoted(command) + ",\"message\":" + Quoted(message) + "}\n";
  const std::string path = DevicePath("/data/log/dravik/events.jsonl");
  const android::base::unique_fd fd(static_cast<int>(TEMP_FAILURE_RETRY(
      open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK, kJournalMode))));
  if (fd == -1) return -1;
  const ssize_t written = TEMP_FAILURE_RETRY(write(fd, line.data(), line.size()));
  return written == static_cast<ssize_t>(line.size()) ? 0 : -1;
}
