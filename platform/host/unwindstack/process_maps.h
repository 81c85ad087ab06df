// One mapping of the process, and the text form of the list of them.
#ifndef QUORVEL_HOST_UNWINDSTACK_PROCESS_MAPS_H_
#define QUORVEL_HOST_UNWINDSTACK_PROCESS_MAPS_H_

#include <stddef.h>
#include <stdint.h>

#include <string_view>

namespace unwindstack {

class Maps;
struct InternedText;

struct Mapping {
  uint64_t start;
  uint64_t end;
  uint64_t offset;  // in the mapped file
  uint64_t inode;   // 0: no file
  uint32_t dev_major, dev_minor;
  int prot;                  // PROT_*
  std::string_view name;     // as in the list, with newlines as "\012"; the list's own memory
  const InternedText* text;  // the same, for good; null in a parsed list

  bool IsFile() const { return inode != 0 && !name.empty() && name[0] == '/'; }
  bool IsSameFile(const Mapping& other) const {
    return inode == other.inode && dev_major == other.dev_major && dev_minor == other.dev_minor;
  }
};

// The mapping that holds `addr`; false when there is none or `maps` has not been parsed.
bool FindMapping(Maps* maps, uint64_t addr, Mapping* result);

// Parses the text of the kernel's list of mappings into at most `capacity` entries, in order of
// address, and returns their number. Malformed lines are skipped.
size_t ParseMapsText(std::string_view text, Mapping* entries, size_t capacity);

}  // namespace unwindstack

#endif  // QUORVEL_HOST_UNWINDSTACK_PROCESS_MAPS_H_
