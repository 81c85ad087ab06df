// The list of the calling process's mappings, read again by each object.
//
// An object is for one thread. Parsing uses no lock of the C library and allocates nothing from
// its heap.
#ifndef QUORVEL_HOST_UNWINDSTACK_PUBLIC_MAPS_H_
#define QUORVEL_HOST_UNWINDSTACK_PUBLIC_MAPS_H_

#include <stddef.h>
#include <stdint.h>

namespace unwindstack {

struct Mapping;

class Maps {
 public:
  virtual ~Maps();
  Maps(const Maps&) = delete;
  Maps& operator=(const Maps&) = delete;

  // False when the list cannot be read. Where the kernel answers questions about single addresses,
  // the list is only opened here and each answer is that of the moment of asking.
  virtual bool Parse();

 private:
  friend class LocalMaps;
  friend bool FindMapping(Maps* maps, uint64_t addr, Mapping* result);

  Maps() = default;
  bool Find(uint64_t addr, Mapping* result);
  bool Query(uint64_t addr, uint64_t flags, Mapping* result);
  bool ReadText();
  void Release();

  int fd_ = -1;               // open only where the kernel answers questions
  char* text_ = nullptr;      // else the list's text
  size_t text_capacity_ = 0;  // in bytes
  Mapping* entries_ = nullptr;
  size_t entry_capacity_ = 0, entry_count_ = 0;
};

class LocalMaps : public Maps {
 public:
  LocalMaps() = default;
  ~LocalMaps() override;
};

}  // namespace unwindstack

#endif  // QUORVEL_HOST_UNWINDSTACK_PUBLIC_MAPS_H_
