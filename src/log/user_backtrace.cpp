#include "log/user_backtrace.h"

#include <android-base/file.h>
#include <android/log.h>

#include <set>
#include <string>

#include "log/log_tag.h"
#include "log/proctid.h"
#include "log/quorvel_log.h"
#include "unwind/unwindstack_wrapper.h"

namespace {

void Echo(const std::string& text) {
  __android_log_print(ANDROID_LOG_ERROR, kLogTag, "%s", text.c_str());
}

void DumpBacktraceTid(int tid, int fd) {
  unwindstack_wrapper unwinder;
  if (!unwinder.unwind(tid, nullptr, unwindstack_wrapper::kMaxFrames)) {
    const std::string line =
        "Unwind failed: tid = " + std::to_string(tid) + ": " + unwinder.error + "\n";
    Echo(line);
    android::base::WriteStringToFd(line, fd);
    return;
  }
  const std::string header = "\ntid = " + std::to_string(tid) + "\n";
  Echo(header);
  android::base::WriteStringToFd(header, fd);
  for (size_t i = 0; i < unwinder.frames.size(); ++i) {
    std::string frame = unwinder.frame_string(i);
    frame += '\n';
    android::base::WriteStringToFd(frame, fd);
    frame.pop_back();
    Echo(frame);
  }
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
