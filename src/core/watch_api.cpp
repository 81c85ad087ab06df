// The four watch calls of quorvel.h.

#include <android-base/file.h>
#include <android/log.h>
#include <quorvel/quorvel.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "base/mutex.h"
#include "core/fork_child.h"
#include "core/monitor_thread.h"
#include "core/timeout_response.h"
#include "core/watch_registry.h"
#include "log/kernel_backtrace.h"
#include "log/log_file.h"
#include "log/log_tag.h"
#include "log/quorvel_log.h"
#include "unwind/unwindstack_wrapper.h"

namespace {

constexpr int32_t kMinTimeout = 1;
constexpr int32_t kMaxTimeout = 60;
constexpr char kVendorPrefix[] = "/vendor";

QuorvelMutex g_init_lock;

// Set under the init lock once the registry is built and the monitor runs; read without it. Release
// and acquire make sure that a thread that sees it set sees the registry built.
std::atomic<bool> g_initialised{false};

bool Initialised() {
  return g_initialised.load(std::memory_order_acquire);
}

// All that the library owns, from the calls down. Until the child's own quorvel_init builds the
// registry again the watch calls refuse.
void ResetInChild() {
  g_initialised.store(false, std::memory_order_relaxed);
  g_init_lock.ResetInChild();
  QuorvelResetRegistryInChild();
  QuorvelResetMonitorInChild();
  QuorvelResetResponseInChild();
  QuorvelDropLogInChild();
  QuorvelForgetLogPathInChild();
  QuorvelResetDumpableInChild();
  unwindstack_wrapper_reset_in_child();
}

void QuorvelManagerInit() {
  QuorvelBuildRegistry();
  if (!QuorvelCreateMonitor()) {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "pthread_create return fail, %s\n", __func__);
    return;
  }
  g_initialised.store(true, std::memory_order_release);
}

void RefreshVendorFlag() {
  const std::string path = android::base::GetExecutablePath();
  QuorvelSetVendor(path.compare(0, sizeof(kVendorPrefix) - 1, kVendorPrefix) == 0);
}

}  // namespace

void quorvel_init() {
  QuorvelEnterProcess(ResetInChild);
  QuorvelMutexLock lock(&g_init_lock);
  if (!Initialised()) QuorvelManagerInit();
  RefreshVendorFlag();
}

uint32_t __quorvel_start_ex(const char* name, int32_t timeout, QuorvelCallback callback, void* arg,
                            uint32_t flags) {
  if (!Initialised()) return QUORVEL_INVALID_ID;
  if (timeout < kMinTimeout || timeout > kMaxTimeout) return QUORVEL_INVALID_ID;

  const int64_t now = time(nullptr);
  const int32_t tid = gettid();
  uint32_t id = QUORVEL_INVALID_ID;
  {
    QuorvelMutexLock lock(&g_registry.lock);
    if (QuorvelNode* node = QuorvelGetFreeNode()) {
      id = node->id;
      node->name = name;
      node->start = now;
      node->timeout = timeout;
      node->tid = tid;
      node->arg = arg;
      node->flags = flags;
      node->callback = callback;
      QuorvelInsertWheel(node, timeout);
    }
  }
  if (id == QUORVEL_INVALID_ID) {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "No free quorvel node\n");
    return QUORVEL_INVALID_ID;
  }
  QuorvelCountStarted();
  QuorvelWakeMonitor();
  return id;
}

uint32_t quorvel_update(uint32_t id, int32_t timeout) {
  if (!Initialised() || !QuorvelIdHasIndex(id)) return QUORVEL_INVALID_ID;
  QuorvelMutexLock lock(&g_registry.lock);
  QuorvelNode* node = QuorvelFindNode(id);
  if (node == nullptr || !QuorvelTimeoutFits(timeout)) return QUORVEL_INVALID_ID;
  QuorvelUnlinkNode(node);
  QuorvelInsertWheel(node, timeout);
  return id;
}

void quorvel_end(uint32_t id) {
  if (!Initialised()) return;
  if (!QuorvelIdHasIndex(id)) {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "%s: not valid id 0x%x\n", __func__, id);
    return;
  }
  bool ended = false;
  {
    QuorvelMutexLock lock(&g_registry.lock);
    if (QuorvelNode* node = QuorvelFindNode(id)) {
      QuorvelUnlinkNode(node);
      QuorvelReleaseNode(node);
      ended = true;
    }
  }
  if (!ended) {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "%s: alrealy release id 0x%x ?\n", __func__,
                        id);
    return;
  }
  QuorvelCountEnded();
}
