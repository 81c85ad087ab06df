#include "log/kernel_backtrace.h"

#include <android/log.h>
#include <kelvane.h>
#include <quorvel/quorvel.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <set>

#include "base/bounds_checked.h"
#include "log/log_tag.h"
#include "log/proctid.h"
#include "log/quorvel_log.h"

namespace {

constexpr size_t kStackSize = 4096;  // what DravikGetStack fills at most

struct FreeDeleter {
  void operator()(char* memory) const { free(memory); }
};
using StackText = std::unique_ptr<char, FreeDeleter>;

// Appends the section of one thread to the empty buffer, cut where the buffer is full. False, with
// a message, when nothing was appended.
bool ComposeSection(int tid, const char* stack) {
  if (QuorvelLogLength() == kLogBufferRoom) {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "quorvel log buffer is full\n");
    return false;
  }
  QuorvelPrintLine("\nkernel stack tid = %d\n", tid);
  const size_t length = std::min(strlen(stack), kLogBufferRoom - QuorvelLogLength());
  const int error = QuorvelAppendLog(stack, length);
  if (error != 0) {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "%s: cannot strcat %d\n", "QuorvelDumpKernel",
                        error);
    return false;
  }
  return true;
}

void QuorvelDumpKernel(int tid, bool echo) {
  QuorvelClearLog();
  const StackText stack(static_cast<char*>(malloc(kStackSize)));
  if (stack == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "malloc buff failed\n");
    return;
  }
  memset_s(stack.get(), kStackSize, 0, kStackSize);
  if (DravikGetStack(tid, stack.get()) != 0) {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "get stack fail, skip...\n");
    return;
  }
  if (!ComposeSection(tid, stack.get())) return;
  if (echo) __android_log_print(ANDROID_LOG_ERROR, kLogTag, "%s", stack.get());
  QuorvelFlushLog();
}

// Set while a process that is not dumpable is made so for a dump.
std::atomic<bool> g_dumpable_for_dump{false};

// Keeps the process dumpable for its scope: only then may it read its own stacks in /proc.
class ScopedDumpable {
 public:
  ScopedDumpable() : was_dumpable_(prctl(PR_GET_DUMPABLE) != 0) {
    if (was_dumpable_) return;
    g_dumpable_for_dump = true;
    prctl(PR_SET_DUMPABLE, 1);
  }
  ~ScopedDumpable() {
    if (was_dumpable_) return;
    prctl(PR_SET_DUMPABLE, 0);
    g_dumpable_for_dump = false;
  }
  ScopedDumpable(const ScopedDumpable&) = delete;
  ScopedDumpable& operator=(const ScopedDumpable&) = delete;

 private:
  const bool was_dumpable_;
};

}  // namespace

void QuorvelResetDumpableInChild() {
  if (g_dumpable_for_dump.exchange(false)) prctl(PR_SET_DUMPABLE, 0);
}

void QuorvelKernBacktrace(int tid) {
  const ScopedDumpable dumpable;
  QuorvelDumpKernel(tid, true);
  std::set<int> tids;
  if (!QuorvelListOtherThreads(tid, &tids)) return;
  for (const int other : tids) QuorvelDumpKernel(other, false);
}
