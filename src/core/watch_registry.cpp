#include "core/watch_registry.h"

QuorvelRegistry g_registry;

void QuorvelBuildRegistry() {
  QuorvelMakeEmpty(&g_registry.free_list);
  for (int32_t i = 0; i < kPoolSize; ++i) {
    QuorvelClearNode(&g_registry.pool[i], i);
    QuorvelAppendTail(&g_registry.free_list, &g_registry.pool[i].link);
  }
  g_registry.cursor = 0;
  for (QuorvelLink& slot : g_registry.wheel) QuorvelMakeEmpty(&slot);
}

void QuorvelResetRegistryAfterFork() {
  g_registry.lock.LetGo();
  g_registry.wake_lock.LetGo();
  g_registry.waiting = 0;
  g_registry.ended.store(g_registry.started.load());
}
