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

// Reads the bytes of a frame description in their order, up to its end.
class Reader {
 public:
  Reader(PageCache* memory, uint64_t at, uint64_t end) : memory_(memory), at_(at), end_(end) {}

  bool more() const { return at_ < end_; }

  uint8_t Byte() {
    const uint64_t word_at = at_ & ~7ull;
    if (!more() || (word_at != word_at_ && !memory_->Load(word_at, &word_))) {
      at_ = end_;
      return 0;
    }
    word_at_ = word_at;
    return static_cast<uint8_t>(word_ >> (at_++ % 8 * 8));
  }
  uint64_t Leb() {
    uint64_t value = 0;
    for (unsigned shift = 0; more(); shift += 7) {
      const uint8_t byte = Byte();
      if (shift < 64) value |= uint64_t{byte & 0x7fu} << shift;
      if (byte < 0x80) break;
    }
    return value;
  }
  void Skip(uint64_t count) { at_ = more() && count < end_ - at_ ? at_ + count : end_; }

 private:
  PageCache* const memory_;
  uint64_t at_;
  const uint64_t end_;
  uint64_t word_at_ = UINT64_MAX, word_ = 0;  // read at once
};

// Whether rules of a frame description have an expression with a division, or cannot be told from
// one. The unwinding library divides without a look at the one quotient that x86-64 traps on.
bool RulesDivide(Reader rules) {
  constexpr uint8_t kDivide = 0x1b;
  while (rules.more()) {
    const uint8_t rule = rules.Byte();
    const unsigned kind = rule >= 0x40 ? 0x40u * (rule >> 6) : rule;
    switch (kind) {
      case 0x00:
      case 0x0a:
      case 0x0b:
      case 0x2d:
      case 0x40:
      case 0xc0:
        break;
      case 0x02:
      case 0x03:
      case 0x04:  // advance by 1, 2 or 4 bytes
        rules.Skip(1u << (kind - 2));
        break;
      case 0x06:
      case 0x07:
      case 0x08:
      case 0x0d:
      case 0x0e:
      case 0x13:
      case 0x2e:
      case 0x80:
        rules.Leb();
        break;
      case 0x05:
      case 0x09:
      case 0x0c:
      case 0x11:
      case 0x12:
      case 0x14:
      case 0x15:
      case 0x2f:
        rules.Leb();
        rules.Leb();
        break;
      case 0x10:
      case 0x16:  // of a register
        rules.Leb();
        [[fallthrough]];
      case 0x0f:
        for (uint64_t left = rules.Leb(); left > 0 && rules.more(); --left) {
          if (rules.Byte() == kDivide) return true;
        }
        break;
      default:
        return true;
    }
  }
  return false;
}

// What FindFrameEntry has to know of the frame description at `frame`; false when it is not one or
// is not to be used.
bool ReadDescription(uint64_t frame, PageCache* memory, bool* signal_frame) {
  constexpr uint32_t kLongest = 1 << 16;
  struct {
    uint32_t length;
    uint32_t common;  // back from this field
  } head;
  uint32_t common_length;
  if (!memory->Load(frame, &head) || head.length < 4 || head.length > kLongest) return false;
  const uint64_t at = frame + 4 - head.common;
  if (!memory->Load(at, &common_length) || common_length > kLongest) return false;
  Reader common(memory, at + 8, at + 4 + common_length);
  const uint8_t version = common.Byte();
  char augmentation[8];
  size_t length = 0;
  while (length < sizeof(augmentation) && (augmentation[length] = static_cast<char>(common.Byte())))
    ++length;
  if (length == sizeof(augmentation)) return false;
  common.Leb();
  common.Leb();
  version == 1 ? common.Byte() : common.Leb();
  const bool sized = augmentation[0] == 'z';
  const uint64_t data = sized ? common.Leb() : 0;
  Reader letters = common;
  common.Skip(data);
  uint8_t encoding = 0;
  *signal_frame = false;
  for (size_t i = 1; i < length; ++i) {
    if (augmentation[i] == 'S') *signal_frame = true;
    if (augmentation[i] == 'R') encoding = letters.Byte();
    if (augmentation[i] == 'L') letters.Byte();
    if (augmentation[i] == 'P') letters.Skip(PointerSize(letters.Byte()));
  }
  Reader rules(memory, frame + 8 + 2 * PointerSize(encoding), frame + 4 + head.length);
  if (sized) rules.Skip(rules.Leb());
  return !RulesDivide(common) && !RulesDivide(rules);
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
  return pc < result->end && ReadDescription(frame, memory, &result->signal_frame);
}

}  // namespace unwindstack
