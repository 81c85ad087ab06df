// The ELF images behind the process's code mappings, read once and kept while they stay mapped.
//
// A kept image is believed only after a look, once an unwind, that the mapping is still of the same
// file, the file unchanged, and the bytes at the image's start in memory the same: libraries come,
// go and are replaced at the same address. Not for two threads at once; takes no lock, allocates
// nothing from the heap.
#ifndef QUORVEL_HOST_UNWINDSTACK_MODULE_CACHE_H_
#define QUORVEL_HOST_UNWINDSTACK_MODULE_CACHE_H_

#include <stddef.h>
#include <stdint.h>
#include <sys/stat.h>

#include <unwindstack/Maps.h>

#include "elf_image.h"
#include "process_maps.h"

namespace unwindstack {

struct Module {
  Mapping mapping;           // the code mapping that it was read for
  uint64_t content;          // a number for what was read, never used again
  uint64_t last_use;         // for choosing the one to drop
  const InternedText* path;  // of the file read; null when it can't be asked by name
  struct stat file;
  uint64_t fingerprint;  // of the first bytes in memory
  uint64_t bias;         // address - image address
  uint64_t elf_start_offset;
  bool stable;  // the read-only segments are those of an unchanged file
  ElfImage image;

  uint64_t FirstAddress() const { return bias + image.first_bytes().vaddr; }
};

class ModuleCache {
 public:
  // The image that `mapping`, executable, shows; null when it shows none. The result lasts until
  // the next call.
  const Module* Get(const Mapping& mapping, Maps* maps);

 private:
  static constexpr size_t kModules = 256;

  Module* NewModule();

  Module* modules_ = nullptr;
  size_t count_ = 0;
  uint64_t uses_ = 0, contents_ = 0;
};

}  // namespace unwindstack

#endif  // QUORVEL_HOST_UNWINDSTACK_MODULE_CACHE_H_
