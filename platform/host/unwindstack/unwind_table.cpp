#include "unwind_table.h"

namespace unwindstack {
namespace {

struct TableHeader {
  uint8_t version;
  uint8_t frames_encoding;
  uint8_t count_encoding;
  uint8_t table_encoding;
};
constexpr uint8_t kUnsigned4 = 0x03;
constexpr uint8_t kRelativeSigned4 = 0x3b;  // to the header

struct TableEntry {
  int32_t pc;
  int32_t frame;
};

// The size of the header's own pointer to the frames, by the format in its encoding; 0: unknown.
uint64_t PointerSize(uint8_t encoding) {
  switch (encoding & 0x0f) {
    case 0x00:  // native
    case 0x04:
    case 0x0c:
      return 8;
    case 0x02:
    case 0x0a:
      return 2;
    case 0x03:
    case 0x0b:
      return 4;
    default:
      return 0;
  }
}

// Whether the frame description at `frame` is of a signal trampoline: its common part is so marked.
bool IsSignalFrame(uint64_t frame, PageCache* memory) {
  struct {
    uint32_t length;
    uint32_t common;  // back from this field
  } head;
  char common[16];  // length, id, version, augmentation
  if (!memory->Load(frame, &head) || head.length == UINT32_MAX ||
      !memory->Load(frame + 4 - head.common, &common)) {
    return false;
  }
  for (size_t i = 9; i < sizeof(common) && common[i] != '\0'; ++i) {
    if (common[i] == 'S') return true;
  }
  return false;
}

}  // namespace

bool FindFrameEntry(const Module& module, uint64_t pc, PageCache* memory, FrameEntry* result) {
  uint64_t size = module.image.unwind_header().size;
  uint64_t table = module.bias + module.image.unwind_header().vaddr;
  TableHeader header;
  if (size < sizeof(header) || !memory->Load(table, &header) || header.version != 1 ||
      header.count_encoding != kUnsigned4 || header.table_encoding != kRelativeSigned4) {
    return false;
  }
  uint64_t pointer_size = PointerSize(header.frames_encoding);
  uint64_t entries = table + sizeof(header) + pointer_size + 4;
  uint32_t count;
  if (pointer_size == 0 || !memory->Load(entries - 4, &count) ||
      count > (size - (entries - table)) / sizeof(TableEntry)) {
    return false;
  }
  // The last entry whose address is not beyond the pc.
  uint64_t low = 0, high = count;
  TableEntry found = {}, at;
  while (low < high) {
    uint64_t middle = (low + high) / 2;
    if (!memory->Load(entries + middle * sizeof(at), &at)) return false;
    if (table + static_cast<uint64_t>(int64_t{at.pc}) <= pc) {
      low = middle + 1;
      found = at;
    } else {
      high = middle;
    }
  }
  if (low == 0) return false;
  result->table = table;
  result->entry = entries + (low - 1) * sizeof(at);
  result->start = table + static_cast<uint64_t>(int64_t{found.pc});
  result->end = UINT64_MAX;
  if (low < count && memory->Load(entries + low * sizeof(at), &at)) {
    result->end = table + static_cast<uint64_t>(int64_t{at.pc});
  }
  uint64_t frame = table + static_cast<uint64_t>(int64_t{found.frame});
  result->signal_frame = IsSignalFrame(frame, memory);
  return pc < result->end;
}

}  // namespace unwindstack
