// What the unwinder needs of an ELF file: where its segments lie, its unwind table, its functions.
//
// Files and memory images are untrusted bytes, read through ByteSource: every offset, size and
// count is checked against what the source has. The class uses no heap: it maps pages.
#ifndef QUORVEL_HOST_UNWINDSTACK_ELF_IMAGE_H_
#define QUORVEL_HOST_UNWINDSTACK_ELF_IMAGE_H_

#include <elf.h>
#include <stddef.h>
#include <stdint.h>

#include <string_view>

namespace unwindstack {

class ByteSource {
 public:
  // Copies `size` bytes from `offset`; false, with `out` undefined, unless all of them are there.
  virtual bool Read(uint64_t offset, void* out, size_t size) = 0;

  template <typename T>
  bool Load(uint64_t offset, T* value) {
    return Read(offset, value, sizeof(T));
  }

 protected:
  ~ByteSource() = default;
};

// Bytes of an image held in a buffer.
class BufferSource final : public ByteSource {
 public:
  explicit BufferSource(std::string_view bytes) : bytes_(bytes) {}
  bool Read(uint64_t offset, void* out, size_t size) override;

 private:
  std::string_view bytes_;
};

class ElfImage {
 public:
  struct Function {
    std::string_view name;
    uint64_t start;
  };

  ElfImage() = default;
  ~ElfImage() { Clear(); }
  ElfImage(const ElfImage&) = delete;
  ElfImage& operator=(const ElfImage&) = delete;

  // Reads the headers; false when they are not those of an image of this machine that is mapped in
  // segments. Discards what was read before.
  bool ReadHeaders(ByteSource* source);

  // Reads the functions of .symtab, or of .dynsym if there is none, by the section headers.
  bool ReadSectionSymbols(ByteSource* source);

  // Reads the functions of the dynamic section of an image in memory: `source` counts from the
  // image's first mapped byte, which lies at address `base`.
  bool ReadDynamicSymbols(ByteSource* source, uint64_t base);

  // Of a mapping of the file's bytes from `offset` on: the address in the image of its first byte.
  bool VaddrOfOffset(uint64_t offset, uint64_t* vaddr) const;

  // The function that address `vaddr` of the image lies in. The name lasts until Clear.
  bool FindFunction(uint64_t vaddr, Function* function) const;

  void Clear();

  struct Range {
    uint64_t vaddr, size;
  };
  Range first_bytes() const { return first_bytes_; }        // the segment that has the file's start
  Range unwind_header() const { return unwind_header_; }    // .eh_frame_hdr; size 0: none
  Range unwind_segment() const { return unwind_segment_; }  // read-only around it; size 0: none
  uint64_t load_bias() const { return load_bias_; }  // vaddr - offset of the first code segment

 private:
  struct Segment {
    uint64_t offset, vaddr, filesz, memsz;
    uint32_t flags;
  };
  struct Symbol {  // as large as an Elf64_Sym, which it replaces in place
    uint64_t value;
    uint32_t size;
    uint32_t name;
    uint32_t rank;  // of symbols with one value the lowest is kept
    uint32_t unused;
  };
  static constexpr size_t kMaxSegments = 32;

  bool CopySymbols(ByteSource* source, uint64_t symbols_at, uint64_t count, uint64_t names_at,
                   uint64_t names_size);
  bool ConvertSymbol(const Elf64_Sym& raw, Symbol* symbol) const;
  void SortSymbols(size_t count);
  void ClearSymbols();
  const Segment* CodeSegment(uint64_t vaddr) const;

  Segment segments_[kMaxSegments];
  size_t segment_count_ = 0;
  Range first_bytes_ = {}, unwind_header_ = {}, unwind_segment_ = {}, dynamic_ = {};
  uint64_t load_bias_ = 0;
  uint64_t sections_at_ = 0, section_count_ = 0;

  Symbol* symbols_ = nullptr;
  size_t symbol_count_ = 0, symbol_bytes_ = 0;
  char* names_ = nullptr;
  size_t names_size_ = 0;  // with a NUL of our own at the end
};

}  // namespace unwindstack

#endif  // QUORVEL_HOST_UNWINDSTACK_ELF_IMAGE_H_
