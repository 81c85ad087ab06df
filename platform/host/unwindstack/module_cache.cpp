#include "module_cache.h"

#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "interned_text.h"
#include "own_memory.h"
#include "pages.h"

namespace unwindstack {
namespace {

// The headers and, as linkers lay files out, the build id.
constexpr size_t kFingerprintBytes = 1024;

// From an image's code to its first mapping.
constexpr int kMaxMappingsBack = 16;

// An open file, from the offset on at which the image begins. Read, never mapped: a file that is
// cut short under a mapping kills the reader.
class FileSource final : public ByteSource {
 public:
  FileSource() = default;
  ~FileSource() { Close(); }
  FileSource(const FileSource&) = delete;
  FileSource& operator=(const FileSource&) = delete;

  // Opens `path` if it is the file with that inode number.
  bool Open(const char* path, uint64_t inode) {
    Close();
    do {
      fd_ = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    } while (fd_ < 0 && errno == EINTR);
    // Device numbers are not compared: several file systems show others in the list of mappings.
    if (fd_ >= 0 && fstat(fd_, &stat_) == 0 && S_ISREG(stat_.st_mode) && stat_.st_ino == inode) {
      return true;
    }
    Close();
    return false;
  }

  bool is_open() const { return fd_ >= 0; }
  const struct stat& stat() const { return stat_; }
  void set_start(uint64_t start) { start_ = start; }

  bool Read(uint64_t offset, void* out, size_t size) override {
    const auto file_size = static_cast<uint64_t>(stat_.st_size);
    if (offset + start_ < offset || offset + start_ > file_size ||
        size > file_size - (offset + start_)) {
      return false;
    }
    for (size_t done = 0; done < size;) {
      const ssize_t got = pread(fd_, static_cast<char*>(out) + done, size - done,
                                static_cast<off_t>(offset + start_ + done));
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return false;
      done += static_cast<size_t>(got);
    }
    return true;
  }

 private:
  void Close() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

  int fd_ = -1;
  uint64_t start_ = 0;
  struct stat stat_ = {};
};

class MemorySource final : public ByteSource {
 public:
  explicit MemorySource(uint64_t base) : base_(base) {}
  bool Read(uint64_t offset, void* out, size_t size) override {
    return ReadOwnMemory(base_ + offset, out, size);
  }

 private:
  uint64_t base_;
};

// The list of mappings writes a newline as "\012".
const InternedText* Unescape(std::string_view name) {
  char path[PATH_MAX];
  size_t length = 0;
  while (!name.empty() && length < sizeof(path)) {
    const bool newline = name.substr(0, 4) == "\\012";
    path[length++] = newline ? '\n' : name[0];
    name.remove_prefix(newline ? 4 : 1);
  }
  return Intern({path, length});
}

// Opens the file that `module` maps, by its name or, if that leads elsewhere now, by the kernel's
// link for the mapping, which needs a privilege.
void OpenFile(Module* module, FileSource* file) {
  const Mapping& mapping = module->mapping;
  module->path = mapping.text;
  if (file->Open(mapping.text->c_str(), mapping.inode)) return;
  module->path = Unescape(mapping.name);
  if (module->path != nullptr && module->path != mapping.text &&
      file->Open(module->path->c_str(), mapping.inode)) {
    return;
  }
  module->path = nullptr;
  char link[64];
  snprintf(link, sizeof(link), "/proc/self/map_files/%" PRIx64 "-%" PRIx64, mapping.start,
           mapping.end);
  file->Open(link, mapping.inode);
}

uint64_t Fingerprint(ByteSource* source, uint64_t size) {
  uint64_t words[kFingerprintBytes / sizeof(uint64_t)] = {};
  if (!source->Read(0, words, std::min<uint64_t>(size, sizeof(words)))) return 0;
  uint64_t hash = 1;
  for (const uint64_t word : words) hash = (hash ^ word) * 0x9E3779B97F4A7C15 + (hash >> 29);
  return hash | 1;
}

uint64_t FingerprintInMemory(const Module& module) {
  MemorySource memory(module.FirstAddress());
  return Fingerprint(&memory, module.image.first_bytes().size);
}

// Reads the image that begins `start` bytes into the file; false when there is none, or another
// than the one in memory.
bool ReadFromFile(FileSource* file, uint64_t start, Module* module) {
  file->set_start(start);
  uint64_t vaddr;
  if (!module->image.ReadHeaders(file) ||
      !module->image.VaddrOfOffset(module->mapping.offset - start, &vaddr)) {
    return false;
  }
  module->bias = module->mapping.start - vaddr;
  module->elf_start_offset = start;
  module->fingerprint = FingerprintInMemory(*module);
  if (module->fingerprint != 0 &&
      module->fingerprint != Fingerprint(file, module->image.first_bytes().size)) {
    return false;
  }
  module->file = file->stat();
  module->stable = module->path != nullptr;
  if (!module->image.ReadSectionSymbols(file)) {
    MemorySource memory(module->FirstAddress());
    module->image.ReadDynamicSymbols(&memory, module->FirstAddress());
  }
  return true;
}

// Reads the image whose first mapping is `first` from memory alone.
bool ReadFromMemory(const Mapping& first, Module* module) {
  MemorySource memory(first.start);
  uint64_t vaddr;
  if (!module->image.ReadHeaders(&memory) ||
      !module->image.VaddrOfOffset(module->mapping.offset - first.offset, &vaddr)) {
    return false;
  }
  module->bias = module->mapping.start - vaddr;
  if (module->FirstAddress() != first.start) return false;
  module->elf_start_offset = module->mapping.inode != 0 ? first.offset : 0;
  module->fingerprint = FingerprintInMemory(*module);
  module->path = nullptr;
  module->stable = false;
  module->image.ReadDynamicSymbols(&memory, first.start);
  return true;
}

// Fills `module` for its mapping; false when that shows no ELF image.
bool Load(Module* module, Maps* maps) {
  FileSource file;
  const Mapping& mapping = module->mapping;
  if (mapping.IsFile()) OpenFile(module, &file);
  if (file.is_open() && ReadFromFile(&file, 0, module)) return true;
  Mapping first = mapping;
  for (int i = 0; i < kMaxMappingsBack; ++i) {
    if (file.is_open() && first.offset != 0 && ReadFromFile(&file, first.offset, module)) {
      return true;
    }
    if (ReadFromMemory(first, module)) return true;
    Mapping before;
    if (!FindMapping(maps, first.start - 1, &before) || !before.IsSameFile(mapping) ||
        before.offset >= first.offset) {
      break;
    }
    first = before;
  }
  return false;
}

bool SameTime(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool IsCurrent(const Module& module) {
  if (module.fingerprint != FingerprintInMemory(module)) return false;
  if (module.path == nullptr) return true;
  struct stat now;
  return stat(module.path->c_str(), &now) == 0 && now.st_ino == module.file.st_ino &&
         now.st_dev == module.file.st_dev && now.st_size == module.file.st_size &&
         SameTime(now.st_mtim, module.file.st_mtim) && SameTime(now.st_ctim, module.file.st_ctim);
}

}  // namespace

const Module* ModuleCache::Get(const Mapping& mapping, Maps* maps) {
  if (!mapping.IsFile() && mapping.name != "[vdso]") return nullptr;
  if (modules_ == nullptr) modules_ = static_cast<Module*>(MapPages(kModules * sizeof(Module)));
  if (modules_ == nullptr) return nullptr;
  Module* module = modules_;
  Module* const end = modules_ + count_;
  for (; module != end; ++module) {
    if (module->mapping.start == mapping.start && module->mapping.offset == mapping.offset) break;
  }
  if (module == end) {
    module = NewModule();
  } else if (module->mapping.IsSameFile(mapping) && module->mapping.text == mapping.text &&
             module->content != 0 && IsCurrent(*module)) {
    module->last_use = ++uses_;
    return module;
  }
  module->mapping = mapping;
  module->mapping.name =
      mapping.text ? std::string_view(mapping.text->c_str()) : std::string_view();
  module->last_use = ++uses_;
  module->content = Load(module, maps) ? ++contents_ : 0;
  return module->content != 0 ? module : nullptr;
}

Module* ModuleCache::NewModule() {
  if (count_ < kModules) return new (&modules_[count_++]) Module();
  return std::min_element(modules_, modules_ + kModules,
                          [](const Module& a, const Module& b) { return a.last_use < b.last_use; });
}

}  // namespace unwindstack
