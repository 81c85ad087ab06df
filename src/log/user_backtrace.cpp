#include "log/user_backtrace.h"

#include <android-base/file.h>
#include <android/log.h>

#include <set>
#include <string>
#include <vector>

#include "log/log_tag.h"
#include "log/proctid.h"
#include "log/quorvel_log.h"
#include "unwind/unwindstack_wrapper.h"

namespace {

constexpr int kMaxFrames = 64;
constexpr size_t kUsualSection = 4096;

void Echo(const std::string& text) {
  __android_log_print(ANDROID_LOG_ERROR, kLogTag, "%s", text.c_str());
}

void DumpBacktraceTid(int tid, int fd) {
  unwindstack_wrapper unwinder;
  if (!unwinder.unwind(tid, nullptr, kMaxFrames)) {
    const std::string line =
        "Unwind failed: tid = " + std::to_string(tid) + ": " + unwinder.error + "\n";
    Echo(line);
    android::base::WriteStringToFd(line, fd);
    return;
  }
  std::string section = "\ntid = " + std::to_string(tid) + "\n";
  Echo(section);
  section.reserve(kUsualSection);
  std::vector<std::string> lines;
  lines.reserve(unwinder.frames.size());
  for (size_t i = 0; i < unwinder.frames.size(); ++i) {
    lines.push_back(unwinder.frame_string(i));
    section += lines.back();
    section += '\n';
  }
  // In one write, and before the frames' echo: the log may be slow.
  android::base::WriteStringToFd(section, fd);
  for (const std::string& line : lines) Echo(line);
}

}  // namespace

void QuorvelUserBacktrace(int tid) {
  const int fd = QuorvelGetLogFd();
  if (fd < 0) return;
  std::set<int> tids;
  if (!QuorvelListOtherThreads(tid, &tids)) return;
  DumpBacktraceTid(tid, fd);
  for (const int other : tids) DumpBacktraceTid(other, fd);
}
