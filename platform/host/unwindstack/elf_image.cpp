#include "elf_image.h"

#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "pages.h"

namespace unwindstack {
namespace {

#if defined(__x86_64__)
constexpr uint16_t kMachine = EM_X86_64;
#else
constexpr uint16_t kMachine = EM_AARCH64;
#endif

// A file that goes beyond these counts as broken; they bound the time and memory that it can cost.
constexpr uint64_t kMaxSymbols = 4 << 20;
constexpr uint64_t kMaxNames = 512 << 20;
constexpr uint64_t kMaxNameLength = 16 << 10;
constexpr uint64_t kMaxSections = 1 << 20;

// How many symbols before an address are searched for a function that encloses it.
constexpr size_t kMaxNesting = 32;

// The number of symbols by a DT_GNU_HASH table: one past the last of the last chain.
uint64_t CountByGnuHash(ByteSource* source, uint64_t table) {
  uint32_t head[4];  // buckets, first symbol, words of the filter, shift
  if (!source->Load(table, &head)) return 0;
  const uint64_t buckets = table + sizeof(head) + uint64_t{head[2]} * 8;
  uint64_t last = 0;
  for (uint64_t i = 0; i < head[0] && i < kMaxSymbols; ++i) {
    uint32_t bucket;
    if (!source->Load(buckets + i * 4, &bucket)) return 0;
    last = std::max<uint64_t>(last, bucket);
  }
  if (last < head[1]) return 0;
  for (; last < kMaxSymbols; ++last) {
    uint32_t chain;
    if (!source->Load(buckets + uint64_t{head[0]} * 4 + (last - head[1]) * 4, &chain)) return 0;
    if (chain & 1) return last + 1;
  }
  return 0;
}

}  // namespace

bool BufferSource::Read(uint64_t offset, void* out, size_t size) {
  if (offset > bytes_.size() || size > bytes_.size() - offset) return false;
  if (size > 0) memcpy(out, bytes_.data() + offset, size);
  return true;
}

void ElfImage::ClearSymbols() {
  UnmapPages(symbols_, symbol_bytes_);
  UnmapPages(names_, names_size_);
  symbols_ = nullptr;
  names_ = nullptr;
  symbol_count_ = symbol_bytes_ = names_size_ = 0;
}

void ElfImage::Clear() {
  ClearSymbols();
  segment_count_ = 0;
  first_bytes_ = unwind_header_ = unwind_segment_ = dynamic_ = {};
  load_bias_ = sections_at_ = section_count_ = 0;
}

bool ElfImage::ReadHeaders(ByteSource* source) {
  Clear();
  Elf64_Ehdr header;
  if (!source->Load(0, &header) || memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
      header.e_ident[EI_CLASS] != ELFCLASS64 || header.e_ident[EI_DATA] != ELFDATA2LSB ||
      header.e_machine != kMachine || header.e_phentsize != sizeof(Elf64_Phdr)) {
    return false;
  }
  for (uint64_t i = 0; i < header.e_phnum && segment_count_ < kMaxSegments; ++i) {
    Elf64_Phdr program;
    if (!source->Load(header.e_phoff + i * sizeof(program), &program)) break;
    if (program.p_type == PT_LOAD) {
      segments_[segment_count_++] = {program.p_offset, program.p_vaddr, program.p_filesz,
                                     program.p_memsz, program.p_flags};
    } else if (program.p_type == PT_GNU_EH_FRAME) {
      unwind_header_ = {program.p_vaddr, program.p_memsz};
    } else if (program.p_type == PT_DYNAMIC) {
      dynamic_ = {program.p_vaddr, program.p_memsz};
    }
  }
  bool code_seen = false;
  const auto page = static_cast<uint64_t>(getpagesize());
  for (size_t i = 0; i < segment_count_; ++i) {
    const Segment& segment = segments_[i];
    if (segment.offset < page && first_bytes_.size == 0) {
      first_bytes_ = {segment.vaddr - segment.offset, segment.filesz + segment.offset};
    }
    if ((segment.flags & PF_X) && !code_seen) {
      code_seen = true;
      load_bias_ = segment.vaddr - segment.offset;
    }
    if (!(segment.flags & PF_W) && unwind_header_.vaddr - segment.vaddr < segment.filesz) {
      unwind_segment_ = {segment.vaddr, segment.filesz};
    }
  }
  if (header.e_shentsize == sizeof(Elf64_Shdr)) {
    sections_at_ = header.e_shoff;
    section_count_ = header.e_shnum;
    Elf64_Shdr first;  // holds the count where it does not fit the header
    if (section_count_ == 0 && sections_at_ != 0 && source->Load(sections_at_, &first)) {
      section_count_ = std::min(first.sh_size, kMaxSections);
    }
  }
  return code_seen;
}

bool ElfImage::ReadSectionSymbols(ByteSource* source) {
  for (const uint32_t wanted : {uint32_t{SHT_SYMTAB}, uint32_t{SHT_DYNSYM}}) {
    for (uint64_t i = 0; i < section_count_; ++i) {
      Elf64_Shdr section, names;
      if (!source->Load(sections_at_ + i * sizeof(section), &section)) break;
      if (section.sh_type != wanted || section.sh_entsize != sizeof(Elf64_Sym)) continue;
      if (section.sh_link < section_count_ &&
          source->Load(sections_at_ + section.sh_link * sizeof(names), &names) &&
          names.sh_type == SHT_STRTAB &&
          CopySymbols(source, section.sh_offset, section.sh_size / sizeof(Elf64_Sym),
                      names.sh_offset, names.sh_size)) {
        return true;
      }
    }
  }
  return false;
}

bool ElfImage::ReadDynamicSymbols(ByteSource* source, uint64_t base) {
  // The loader may have replaced the section's image addresses by real ones.
  const uint64_t bias = base - first_bytes_.vaddr;
  uint64_t symbols = 0, names = 0, names_size = 0, hash = 0, gnu_hash = 0;
  for (uint64_t i = 0; i < dynamic_.size / sizeof(Elf64_Dyn); ++i) {
    Elf64_Dyn entry;
    if (!source->Load(dynamic_.vaddr - first_bytes_.vaddr + i * sizeof(entry), &entry))
      return false;
    if (entry.d_tag == DT_NULL) break;
    const uint64_t vaddr = entry.d_un.d_ptr >= bias ? entry.d_un.d_ptr - bias : entry.d_un.d_ptr;
    const uint64_t offset = vaddr - first_bytes_.vaddr;
    if (entry.d_tag == DT_SYMTAB) symbols = offset;
    if (entry.d_tag == DT_STRTAB) names = offset;
    if (entry.d_tag == DT_STRSZ) names_size = entry.d_un.d_val;
    if (entry.d_tag == DT_HASH) hash = offset;
    if (entry.d_tag == DT_GNU_HASH) gnu_hash = offset;
  }
  uint64_t count = gnu_hash != 0 ? CountByGnuHash(source, gnu_hash) : 0;
  uint32_t head[2];  // buckets, symbols
  if (count == 0 && hash != 0 && source->Load(hash, &head)) count = head[1];
  return symbols != 0 && names != 0 && CopySymbols(source, symbols, count, names, names_size);
}

bool ElfImage::CopySymbols(ByteSource* source, uint64_t symbols_at, uint64_t count,
                           uint64_t names_at, uint64_t names_size) {
  char probe;
  if (count == 0 || count > kMaxSymbols || names_size == 0 || names_size > kMaxNames ||
      !source->Load(symbols_at + count * sizeof(Elf64_Sym) - 1, &probe) ||
      !source->Load(names_at + names_size - 1, &probe)) {
    return false;
  }
  ClearSymbols();
  symbol_bytes_ = count * sizeof(Elf64_Sym);
  symbols_ = static_cast<Symbol*>(MapPages(symbol_bytes_));
  names_size_ = names_size + 1;
  names_ = static_cast<char*>(MapPages(names_size_));
  if (symbols_ == nullptr || names_ == nullptr ||
      !source->Read(symbols_at, symbols_, symbol_bytes_) ||
      !source->Read(names_at, names_, names_size)) {
    ClearSymbols();
    return false;
  }
  static_assert(sizeof(Symbol) == sizeof(Elf64_Sym), "converted in place");
  size_t kept = 0;
  for (size_t i = 0; i < count; ++i) {
    Elf64_Sym raw;
    memcpy(&raw, &symbols_[i], sizeof(raw));
    if (ConvertSymbol(raw, &symbols_[kept])) ++kept;
  }
  SortSymbols(kept);
  return symbol_count_ > 0;
}

bool ElfImage::ConvertSymbol(const Elf64_Sym& raw, Symbol* symbol) const {
  const unsigned type = ELF64_ST_TYPE(raw.st_info);
  const bool function = type == STT_FUNC || type == STT_GNU_IFUNC;
  if (!function && type != STT_NOTYPE) return false;
  if (raw.st_shndx == SHN_UNDEF || raw.st_name >= names_size_ - 1) return false;
  if (!function && raw.st_shndx >= SHN_LORESERVE && raw.st_shndx != SHN_XINDEX) return false;
  const char* name = names_ + raw.st_name;
  if (name[0] == '\0' || (!function && (name[0] == '$' || name[0] == '.'))) return false;
  if (CodeSegment(raw.st_value) == nullptr) return false;
  const unsigned binding = ELF64_ST_BIND(raw.st_info);
  const uint32_t rank = (raw.st_size == 0 ? 8 : 0) + (function ? 0 : 4) +
                        (binding == STB_GLOBAL ? 0
                         : binding == STB_WEAK ? 1
                                               : 2);
  const uint64_t size = std::min<uint64_t>(raw.st_size, UINT32_MAX);
  *symbol = {raw.st_value, static_cast<uint32_t>(size), raw.st_name, rank, 0};
  return true;
}

// Keeps one of several names for one address: sized before unsized, function before label, global
// before weak before local, then the longest extent, then the alphabetically first name.
void ElfImage::SortSymbols(size_t count) {
  std::sort(symbols_, symbols_ + count, [this](const Symbol& a, const Symbol& b) {
    if (a.value != b.value) return a.value < b.value;
    if (a.rank != b.rank) return a.rank < b.rank;
    if (a.size != b.size) return a.size > b.size;
    return strncmp(names_ + a.name, names_ + b.name, kMaxNameLength) < 0;
  });
  Symbol* const end = std::unique(symbols_, symbols_ + count, [](const Symbol& a, const Symbol& b) {
    return a.value == b.value;
  });
  symbol_count_ = static_cast<size_t>(end - symbols_);
}

const ElfImage::Segment* ElfImage::CodeSegment(uint64_t vaddr) const {
  for (size_t i = 0; i < segment_count_; ++i) {
    const Segment& segment = segments_[i];
    if ((segment.flags & PF_X) && vaddr - segment.vaddr < segment.memsz) return &segment;
  }
  return nullptr;
}

bool ElfImage::VaddrOfOffset(uint64_t offset, uint64_t* vaddr) const {
  const auto page = static_cast<uint64_t>(getpagesize());
  for (const uint32_t needed : {uint32_t{PF_X}, 0U}) {
    for (size_t i = 0; i < segment_count_; ++i) {
      const Segment& segment = segments_[i];
      const uint64_t first = segment.offset & ~(page - 1);
      if ((segment.flags & needed) == needed && offset >= first &&
          offset - first < segment.filesz + (segment.offset - first)) {
        *vaddr = segment.vaddr + (offset - segment.offset);
        return true;
      }
    }
  }
  return false;
}

bool ElfImage::FindFunction(uint64_t vaddr, Function* function) const {
  const Symbol* next =
      std::upper_bound(symbols_, symbols_ + symbol_count_, vaddr,
                       [](uint64_t value, const Symbol& symbol) { return value < symbol.value; });
  const Symbol* found = nullptr;
  for (const Symbol* at = next; at > symbols_ && next - at < static_cast<ptrdiff_t>(kMaxNesting);) {
    --at;
    if (at->size != 0 && vaddr - at->value < at->size) {
      found = at;
      break;
    }
    // A symbol without a size reaches to the next one, unless a function encloses both.
    if (at->size == 0 && at + 1 == next && CodeSegment(vaddr) == CodeSegment(at->value)) found = at;
  }
  if (found == nullptr) return false;
  const char* name = names_ + found->name;
  *function = {{name, strnlen(name, kMaxNameLength)}, found->value};
  return true;
}

}  // namespace unwindstack
