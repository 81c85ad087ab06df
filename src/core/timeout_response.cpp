#include "core/timeout_response.h"

#include <android/log.h>
#include <pthread.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "core/fork_child.h"
#include "core/recovery_limit.h"
#include "log/incident_close.h"
#include "log/incident_header.h"
#include "log/kernel_backtrace.h"
#include "log/log_file.h"
#include "log/log_tag.h"
#include "log/quorvel_log.h"
#include "log/user_backtrace.h"

namespace {

constexpr int64_t kRatePeriodSeconds = 60;
constexpr uint32_t kRateLimit = 6;
constexpr uint32_t kRateLimitedFlags = QUORVEL_FLAG_LOG | QUORVEL_FLAG_BACKTRACE;

// Monitor thread only. A new period changes the start alone: the count goes on for the life of the
// process, so one that keeps hanging is soon down to one incident a period.
struct RatePeriod {
  int64_t start = 0;  // wall-clock seconds
  uint32_t count = 0;
};
RatePeriod g_period;

bool WithinRateLimit() {
  const int64_t now = time(nullptr);
  if (g_period.start + kRatePeriodSeconds < now) {
    g_period.start = now;
    return true;
  }
  ++g_period.count;
  return g_period.count < kRateLimit;
}

// Whether no thread of the host's is left beside the calling one; a monitor of the child's own does
// not count. The task directory has two links and one more for each thread. Their number is right
// even where /proc belongs to another pid namespace, and reading it allocates nothing. Without
// /proc the answer is yes, which is right in nearly every child.
bool IsLastOfHost() {
  constexpr nlink_t kLinksOfOneThread = 3;
  const nlink_t links = QuorvelHasMonitor() ? kLinksOfOneThread + 1 : kLinksOfOneThread;
  struct stat task = {};
  return stat("/proc/self/task", &task) != 0 || task.st_nlink <= links;
}

// For a child that the client's callback forked and in which it returned. The incident is the
// parent's, and this thread would go on as a second monitor. _exit, because the exit handlers are
// the host's and belong to the parent.
[[noreturn]] void EndThreadOfForkedChild() {
  if (IsLastOfHost()) _exit(0);
  pthread_exit(nullptr);
}

void CallBack(const QuorvelTimeoutInfo& info) {
  if (info.callback == nullptr) return;
  const QuorvelProcess process = QuorvelCurrentProcess();
  info.callback(info.arg);
  if (!(QuorvelCurrentProcess() == process)) EndThreadOfForkedChild();
}

void WriteIncident(const QuorvelTimeoutInfo& info, bool is_vendor) {
  QuorvelInitLog(static_cast<int>(info.flags), is_vendor);
  QuorvelInsertLogTitle(info.tid, info.name, info.start);
  QuorvelFlushLog();
  CallBack(info);
  if ((info.flags & QUORVEL_FLAG_BACKTRACE) != 0) {
    QuorvelKernBacktrace(info.tid);
    QuorvelUserBacktrace(info.tid);
  }
  QuorvelEndLog();
}

}  // namespace

void QuorvelTimeoutResponse(const QuorvelTimeoutInfo& info, bool is_vendor) {
  __android_log_print(ANDROID_LOG_ERROR, kLogTag, "Trigger 0x%x Callback Function ...\n", info.id);
  if ((info.flags & kRateLimitedFlags) != 0 && !WithinRateLimit()) {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                        "Too many callback triggerd in a short time! \n");
    return;
  }
  WriteIncident(info, is_vendor);
  if ((info.flags & QUORVEL_FLAG_RECOVERY) == 0) {
    QuorvelSayRecoveryNotSet();
    return;
  }
  QuorvelRecover(is_vendor);
}

void QuorvelResetResponseInChild() {
  g_period = RatePeriod();
}
