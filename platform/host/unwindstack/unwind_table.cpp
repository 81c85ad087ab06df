#include "unwind_table.h"

namespace unwindstack {
namespace {

// Pointer encodings, see the Linux Standard Base, "DWARF Exception Header Encoding": a format in
// the low four bits, what the value is relative to in the next three.
enum PointerEncoding : uint8_t {
  kAbsolute = 0x00,
  kUnsigned2 = 0x02,
  kUnsigned4 = 0x03,
  kUnsigned8 = 0x04,
  kSigned2 = 0x0a,
  kSigned4 = 0x0b,
  kSigned8 = 0x0c,
  kFormatMask = 0x0f,
  kRelativeToTable = 0x30,
};

// Call frame instructions, see DWARF 5, section 7.24, and, for the last three, GCC's dwarf2.def.
// The first three have an operand in their low six bits.
enum Rule : uint8_t {
  kAdvance = 0x40,
  kOffset = 0x80,
  kRestore = 0xc0,
  kNop = 0x00,
  kAdvance1 = 0x02,
  kAdvance2 = 0x03,
  kAdvance4 = 0x04,
  kOffsetExtended = 0x05,
  kRestoreExtended = 0x06,
  kUndefined = 0x07,
  kSameValue = 0x08,
  kRegister = 0x09,
  kRememberState = 0x0a,
  kRestoreState = 0x0b,
  kDefCfa = 0x0c,
  kDefCfaRegister = 0x0d,
  kDefCfaOffset = 0x0e,
  kDefCfaExpression = 0x0f,
  kExpression = 0x10,
  kOffsetExtendedSigned = 0x11,
  kDefCfaSigned = 0x12,
  kDefCfaOffsetSigned = 0x13,
  kValueOffset = 0x14,
  kValueOffsetSigned = 0x15,
  kValueExpression = 0x16,
  kNegateReturnAddressState = 0x2d,  // of 64-bit ARM
  kArgumentsSize = 0x2e,
  kNegativeOffsetExtended = 0x2f,
};
constexpr uint8_t kRuleMask = 0xc0;
constexpr uint8_t kDivide = 0x1b;  // an operation of expressions: DWARF 5, section 7.7.1

// The head of .eh_frame_hdr, see the Linux Standard Base, "The .eh_frame_hdr section".
struct TableHeader {
  uint8_t version;
  uint8_t frames_encoding;
  uint8_t count_encoding;
  uint8_t table_encoding;
};
constexpr uint8_t kTableVersion = 1;

struct TableEntry {
  int32_t pc;
  int32_t frame;
};

// The size of a pointer by its encoding; 0: unknown.
uint64_t PointerSize(uint8_t encoding) {
  switch (encoding & kFormatMask) {
    case kAbsolute:
    case kUnsigned8:
    case kSigned8:
      return 8;
    case kUnsigned2:
    case kSigned2:
      return 2;
    case kUnsigned4:
    case kSigned4:
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
  PageCache* memory_;
  uint64_t at_, end_;
  uint64_t word_at_ = UINT64_MAX, word_ = 0;  // the last one read
};

// Reads past an expression. Whether one of its bytes is a division.
bool ExpressionDivides(Reader* rules) {
  for (uint64_t left = rules->Leb(); left > 0 && rules->more(); --left) {
    if (rules->Byte() == kDivide) return true;
  }
  return false;
}

// Whether the rules of a frame description may divide: they have an expression with a division, or
// cannot be read. The unwinding library does not check for the one quotient at which x86-64 traps.
bool RulesDivide(Reader rules) {
  while (rules.more()) {
    const uint8_t rule = rules.Byte();
    const uint8_t with_operand = rule & kRuleMask;
    switch (with_operand != 0 ? with_operand : rule) {
      case kNop:
      case kRememberState:
      case kRestoreState:
      case kNegateReturnAddressState:
      case kAdvance:
      case kRestore:
        break;
      case kAdvance1:
        rules.Skip(1);
        break;
      case kAdvance2:
        rules.Skip(2);
        break;
      case kAdvance4:
        rules.Skip(4);
        break;
      case kRestoreExtended:
      case kUndefined:
      case kSameValue:
      case kDefCfaRegister:
      case kDefCfaOffset:
      case kDefCfaOffsetSigned:
      case kArgumentsSize:
      case kOffset:
        rules.Leb();
        break;
      case kOffsetExtended:
      case kRegister:
      case kDefCfa:
      case kOffsetExtendedSigned:
      case kDefCfaSigned:
      case kValueOffset:
      case kValueOffsetSigned:
      case kNegativeOffsetExtended:
        rules.Leb();
        rules.Leb();
        break;
      case kExpression:
      case kValueExpression:
        rules.Leb();  // the register
        if (ExpressionDivides(&rules)) return true;
        break;
      case kDefCfaExpression:
        if (ExpressionDivides(&rules)) return true;
        break;
      default:
        return true;
    }
  }
  return false;
}

// What frame descriptions have in common (DWARF's CIE), as far as it matters here.
struct CommonPart {
  Reader rules;
  bool signal_frame;
  bool sized;             // each description has a length before its own augmentation data
  uint64_t pointer_size;  // of the addresses in each description; 0: unknown
};

// Reads the common part that begins at `at`, after its length and id, and ends at `end`. False when
// its augmentation string does not fit.
bool ReadCommonPart(PageCache* memory, uint64_t at, uint64_t end, CommonPart* result) {
  Reader common(memory, at, end);
  const uint8_t version = common.Byte();
  char augmentation[8];
  size_t length = 0;
  while (length < sizeof(augmentation)) {
    augmentation[length] = static_cast<char>(common.Byte());
    if (augmentation[length] == '\0') break;
    ++length;
  }
  if (length == sizeof(augmentation)) return false;
  common.Leb();                                 // code alignment
  common.Leb();                                 // data alignment
  version == 1 ? common.Byte() : common.Leb();  // the return address's register
  result->sized = augmentation[0] == 'z';
  const uint64_t data = result->sized ? common.Leb() : 0;
  Reader letters = common;
  common.Skip(data);
  uint8_t encoding = kAbsolute;
  result->signal_frame = false;
  for (size_t i = 1; i < length; ++i) {
    if (augmentation[i] == 'S') result->signal_frame = true;
    if (augmentation[i] == 'R') encoding = letters.Byte();
    if (augmentation[i] == 'L') letters.Byte();
    if (augmentation[i] == 'P') letters.Skip(PointerSize(letters.Byte()));
  }
  result->pointer_size = PointerSize(encoding);
  result->rules = common;
  return true;
}

// Reads of the frame description at `frame` what FindFrameEntry needs; false when it is not one or
// must not be used.
bool ReadDescription(uint64_t frame, PageCache* memory, bool* signal_frame) {
  constexpr uint32_t kLongest = 1 << 16;
  struct {
    uint32_t length;
    uint32_t common;  // back from this field
  } head;
  constexpr uint64_t kLengthSize = sizeof(head.length);
  uint32_t common_length;
  if (!memory->Load(frame, &head) || head.length < sizeof(head.common) || head.length > kLongest) {
    return false;
  }
  const uint64_t at = frame + kLengthSize - head.common;
  if (!memory->Load(at, &common_length) || common_length > kLongest) return false;
  CommonPart common = {Reader(memory, 0, 0), false, false, 0};
  if (!ReadCommonPart(memory, at + sizeof(head), at + kLengthSize + common_length, &common)) {
    return false;
  }
  *signal_frame = common.signal_frame;
  Reader rules(memory, frame + sizeof(head) + 2 * common.pointer_size,
               frame + kLengthSize + head.length);
  if (common.sized) rules.Skip(rules.Leb());
  return !RulesDivide(common.rules) && !RulesDivide(rules);
}

// The search table of an image.
struct SearchTable {
  uint64_t header;   // its address, to which all in it is relative
  uint64_t entries;  // the address of the first entry
  uint64_t count;

  uint64_t At(uint64_t i) const { return entries + i * sizeof(TableEntry); }
  uint64_t Absolute(int32_t offset) const {
    return header + static_cast<uint64_t>(int64_t{offset});
  }
};

bool ReadSearchTable(const Module& module, PageCache* memory, SearchTable* table) {
  const uint64_t size = module.image.unwind_header().size;
  table->header = module.bias + module.image.unwind_header().vaddr;
  TableHeader header;
  if (size < sizeof(header) || !memory->Load(table->header, &header) ||
      header.version != kTableVersion || header.count_encoding != kUnsigned4 ||
      header.table_encoding != (kRelativeToTable | kSigned4)) {
    return false;
  }
  const uint64_t pointer_size = PointerSize(header.frames_encoding);
  uint32_t count;
  const uint64_t head_size = sizeof(header) + pointer_size + sizeof(count);
  table->entries = table->header + head_size;
  if (pointer_size == 0 || size < head_size ||
      !memory->Load(table->entries - sizeof(count), &count) ||
      count > (size - head_size) / sizeof(TableEntry)) {
    return false;
  }
  table->count = count;
  return true;
}

}  // namespace

bool FindFrameEntry(const Module& module, uint64_t pc, PageCache* memory, FrameEntry* result) {
  SearchTable table;
  if (!ReadSearchTable(module, memory, &table)) return false;
  // The last entry whose address is not beyond the pc.
  uint64_t low = 0, high = table.count;
  TableEntry found = {}, at;
  while (low < high) {
    const uint64_t middle = (low + high) / 2;
    if (!memory->Load(table.At(middle), &at)) return false;
    if (table.Absolute(at.pc) <= pc) {
      low = middle + 1;
      found = at;
    } else {
      high = middle;
    }
  }
  if (low == 0) return false;
  result->table = table.header;
  result->entry = table.At(low - 1);
  result->start = table.Absolute(found.pc);
  result->end = UINT64_MAX;
  if (low < table.count && memory->Load(table.At(low), &at)) result->end = table.Absolute(at.pc);
  return pc < result->end &&
         ReadDescription(table.Absolute(found.frame), memory, &result->signal_frame);
}

}  // namespace unwindstack
