// The ELF images behind the process's code mappings, read once and kept while they stay mapped.
//
// Libraries come, go and are replaced at the same address. So once an unwind a kept image is
// compared with the mapping, the file's attributes and the first bytes in memory, and read again if
// any of them has changed. Not for two threads at once; locks nothing, allocates nothing from the
// heap. It opens and reads files while a thread is stopped: a file system that hangs, hangs it.
//
// The images are found by the process's list of mappings and not by glibc's _dl_find_object, which
// would replace less than the 60 lines of the search back to an image's first mapping and of the
// program headers: names and offsets need the file's own headers and symbols in any case, and so do
// deleted files, images within other files, images that no loader has mapped, and other C
// libraries.
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
  uint64_t content;          // the number of what was read, unique; 0: no ELF image
  uint64_t last_use;         // the least recent one is replaced first
  const InternedText* path;  // of the file read; null when it has no name any more
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
