// The registry: every watch of the process, in a fixed pool of 128 nodes. A node is always on
// exactly one circular list: the free list, or one of the 64 slots of the timing wheel, one slot a
// second. The cursor names the slot that the monitor empties at its next tick.
//
// Threads: the registry lock guards the pool, the lists and the cursor; the two counters are
// atomics and need no lock. Every operation takes constant time; none allocates, blocks or calls
// out.
#ifndef QUORVEL_CORE_WATCH_REGISTRY_H_
#define QUORVEL_CORE_WATCH_REGISTRY_H_

#include <quorvel/quorvel.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "base/mutex.h"

// What clients rely on: 128 watches, and deadlines that wrap at 64 seconds. The C++ headers' table
// has twice as many blocks as the pool has nodes, in programs that are built already.
constexpr int32_t kPoolSize = 128;
constexpr int32_t kWheelSlots = 64;
constexpr uint32_t kIdIndexBits = 9;
constexpr uint32_t kIdIndexMask = (1u << kIdIndexBits) - 1;
static_assert(kPoolSize <= kIdIndexMask, "the highest index is that of QUORVEL_INVALID_ID");

struct QuorvelLink {
  QuorvelLink* next;
  QuorvelLink* prev;
};

struct QuorvelNode {
  uint32_t id;               // QUORVEL_INVALID_ID while the node is free
  int32_t index;             // place in the pool; kept through every clearing
  const char* name;          // the client's text, not copied; may be null
  int64_t start;             // wall-clock seconds at the start call
  int32_t timeout;           // seconds, as given to the start call
  int32_t tid;               // kernel id of the thread that started the watch
  void* arg;                 // handed to the callback
  uint32_t flags;            // QUORVEL_FLAG_*
  QuorvelCallback callback;  // may be null
  QuorvelLink link;
};

constexpr size_t kCacheLine = 64;  // bytes, on x86-64 and nearly all 64-bit ARM

// The registry's state. Only the functions of this component touch it; it is in the header so
// that a start and an end need no call for each step.
struct QuorvelRegistry {
  alignas(kCacheLine) QuorvelMutex lock;
  int32_t cursor QUORVEL_GUARDED_BY(lock) = 0;
  std::atomic<uint32_t> started{0};
  QuorvelLink free_list QUORVEL_GUARDED_BY(lock) = {&free_list, &free_list};
  std::atomic<uint32_t> ended{0};
  alignas(kCacheLine) QuorvelLink wheel[kWheelSlots] QUORVEL_GUARDED_BY(lock) = {};
  alignas(kCacheLine) QuorvelNode pool[kPoolSize] QUORVEL_GUARDED_BY(lock) = {};
};
extern QuorvelRegistry g_registry;

// The circular lists. A head that points to itself is an empty list.
inline void QuorvelMakeEmpty(QuorvelLink* head) {
  head->next = head;
  head->prev = head;
}

inline bool QuorvelIsEmpty(const QuorvelLink& head) {
  return head.next == &head;
}

inline void QuorvelAppendTail(QuorvelLink* head, QuorvelLink* link) {
  link->next = head;
  link->prev = head->prev;
  head->prev->next = link;
  head->prev = link;
}

inline QuorvelNode* QuorvelNodeOf(QuorvelLink* link) {
  return reinterpret_cast<QuorvelNode*>(reinterpret_cast<char*>(link) -
                                        offsetof(QuorvelNode, link));
}

// Puts every node on the free list in index order, empties the wheel, sets the cursor to slot 0.
void QuorvelBuildRegistry() QUORVEL_EXCLUDES(g_registry.lock);

// Watches that were started and watches that were ended or expired, in the life of the process,
// modulo 2^32. Their difference is the number of armed watches. Sequentially consistent, as the
// wake-up requires (see monitor_thread.h); no lock needed.
inline void QuorvelCountStarted() {
  g_registry.started.fetch_add(1);
}
inline void QuorvelCountEnded() {
  g_registry.ended.fetch_add(1);
}
inline uint32_t QuorvelStartedCount() {
  return g_registry.started.load();
}
inline uint32_t QuorvelEndedCount() {
  return g_registry.ended.load();
}

// Unlinks a node from the list that it is on.
inline void QuorvelUnlinkNode(QuorvelNode* node) QUORVEL_REQUIRES(g_registry.lock) {
  node->link.prev->next = node->link.next;
  node->link.next->prev = node->link.prev;
}

// Unlinks the head of the free list and forms its id: the node's index in the low 9 bits, the
// number of starts so far above them. So an id is not given out again before 2^23 more starts, and
// one that is out of date finds no node. Null when no node is free.
inline QuorvelNode* QuorvelGetFreeNode() QUORVEL_REQUIRES(g_registry.lock) {
  if (QuorvelIsEmpty(g_registry.free_list)) return nullptr;
  QuorvelNode* node = QuorvelNodeOf(g_registry.free_list.next);
  QuorvelUnlinkNode(node);
  QuorvelMakeEmpty(&node->link);
  node->id = static_cast<uint32_t>(node->index) | (QuorvelStartedCount() << kIdIndexBits);
  return node;
}

// Whether the wheel has a slot for timeout: not negative, and cursor + timeout fits in 32 bits.
inline bool QuorvelTimeoutFits(int32_t timeout) QUORVEL_REQUIRES(g_registry.lock) {
  int32_t deadline;
  return timeout >= 0 && !__builtin_add_overflow(g_registry.cursor, timeout, &deadline);
}

// Links a node that is on no list into slot (cursor + timeout) mod 64, at the tail. timeout must
// have passed QuorvelTimeoutFits.
inline void QuorvelInsertWheel(QuorvelNode* node, int32_t timeout)
    QUORVEL_REQUIRES(g_registry.lock) {
  const int32_t slot = (g_registry.cursor + timeout) % kWheelSlots;
  QuorvelAppendTail(&g_registry.wheel[slot], &node->link);
}

// Whether the low bits of id are the index of a node. Needs no lock.
inline bool QuorvelIdHasIndex(uint32_t id) {
  return (id & kIdIndexMask) < static_cast<uint32_t>(kPoolSize);
}

// The armed node whose id is exactly this one; null when the watch was ended, has expired or never
// was started. The id must have passed QuorvelIdHasIndex.
inline QuorvelNode* QuorvelFindNode(uint32_t id) QUORVEL_REQUIRES(g_registry.lock) {
  QuorvelNode* node = &g_registry.pool[id & kIdIndexMask];
  return node->id == id ? node : nullptr;
}

// Clears all of a node except its index.
inline void QuorvelClearNode(QuorvelNode* node, int32_t index) {
  *node = QuorvelNode{};
  node->id = QUORVEL_INVALID_ID;
  node->index = index;
}

// Clears a node that is on no list and appends it to the free list. The caller counts it with
// QuorvelCountEnded, before or after it unlocks.
inline void QuorvelReleaseNode(QuorvelNode* node) QUORVEL_REQUIRES(g_registry.lock) {
  QuorvelClearNode(node, node->index);
  QuorvelAppendTail(&g_registry.free_list, &node->link);
}

// The node that has been longest in the slot under the cursor; null when the slot is empty.
inline QuorvelNode* QuorvelFirstExpired() QUORVEL_REQUIRES(g_registry.lock) {
  QuorvelLink& slot = g_registry.wheel[g_registry.cursor];
  return QuorvelIsEmpty(slot) ? nullptr : QuorvelNodeOf(slot.next);
}

// Moves the cursor one slot on.
inline void QuorvelAdvanceCursor() QUORVEL_REQUIRES(g_registry.lock) {
  g_registry.cursor = (g_registry.cursor + 1) % kWheelSlots;
}

// In the child of a fork, whose parent's other threads may have held the lock: unlocks it and
// counts every watch of the parent as ended. The lists stay as they are until the next build.
void QuorvelResetRegistryInChild();

#endif  // QUORVEL_CORE_WATCH_REGISTRY_H_
