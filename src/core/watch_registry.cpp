#include "core/watch_registry.h"

QuorvelRegistry g_registry;

void QuorvelBuildRegistry() {
  QuorvelMutexLock lock(&g_registry.lock);
  QuorvelMakeEmpty(&g_registry.free_list);
  for (int32_t i = 0; i < kPoolSize; ++i) {
    QuorvelClearNode(&g_registry.pool[i], i);
    QuorvelAppendTail(&g_registry.free_list, &g_registry.pool[i].link);
  }
  g_registry.cursor = 0;
  for (QuorvelLink& slot : g_registry.wheel) QuorvelMakeEmpty(&slot);
}

void QuorvelResetRegistryInChild() {
  g_registry.lock.ResetInChild();
  g_registry.ended.store(g_registry.started.load());
}
