// Finding the call frame information of an address, in the tables that are mapped with the code.
#ifndef QUORVEL_HOST_UNWINDSTACK_UNWIND_TABLE_H_
#define QUORVEL_HOST_UNWINDSTACK_UNWIND_TABLE_H_

#include <stdint.h>

#include "module_cache.h"
#include "own_memory.h"

namespace unwindstack {

// The entry of an image's search table for one address.
struct FrameEntry {
  uint64_t table;       // address of the table's header, to which its entries relate
  uint64_t entry;       // address of the entry itself
  uint64_t start, end;  // of the addresses for which the search finds it
  bool signal_frame;  // a return from a signal handler: the next frame was interrupted, not called
};

// False when there is none or the table is malformed. What is found may still be false.
bool FindFrameEntry(const Module& module, uint64_t pc, PageCache* memory, FrameEntry* result);

}  // namespace unwindstack

#endif  // QUORVEL_HOST_UNWINDSTACK_UNWIND_TABLE_H_
