// Walks the call stack of a thread of this process, from its registers.
//
// The thread may be stopped while it holds any lock of the process: from construction to the end of
// Unwind nothing is allocated from the C library's heap and none of its or the loader's locks is
// locked. Unwinds of several threads wait for each other.
#ifndef QUORVEL_HOST_UNWINDSTACK_PUBLIC_UNWINDER_H_
#define QUORVEL_HOST_UNWINDSTACK_PUBLIC_UNWINDER_H_

#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <string>
#include <vector>

#include <unwindstack/Maps.h>
#include <unwindstack/Memory.h>
#include <unwindstack/Regs.h>
#include <unwindstack/SharedString.h>

namespace unwindstack {

struct FrameData {
  size_t num = 0;

  uint64_t rel_pc = 0;  // pc as the frame's ELF file numbers its addresses; pc itself without a map
  uint64_t pc = 0;      // exact in the first frame and after a signal's, else within the call
  uint64_t sp = 0;

  SharedString function_name;
  uint64_t function_offset = 0;

  SharedString map_name;
  uint64_t map_elf_start_offset = 0;  // where in the mapped file the ELF image begins
  uint64_t map_exact_offset = 0;      // where in the mapped file the mapping begins
  uint64_t map_start = 0;             // equal to map_end when no mapping holds the pc
  uint64_t map_end = 0;
  uint64_t map_load_bias = 0;  // address less file offset of the first executable segment
  int map_flags = 0;           // PROT_*
};

class Unwinder {
 public:
  // Borrows `maps`, which must have been parsed, and `regs`. Up to 64 frames go into storage set
  // aside at load; more than that, or more than a few Unwinders at once, allocate.
  Unwinder(size_t max_frames, Maps* maps, Regs* regs, std::shared_ptr<Memory> process_memory);
  ~Unwinder();
  Unwinder(const Unwinder&) = delete;
  Unwinder& operator=(const Unwinder&) = delete;

  // Fills frames(), innermost first. Neither list is supported by the host layer: both are ignored.
  void Unwind(const std::vector<std::string>* initial_map_names_to_skip = nullptr,
              const std::vector<std::string>* map_suffixes_to_ignore = nullptr);

  const std::vector<FrameData>& frames() const { return *frames_; }
  size_t NumFrames() const { return frames_->size(); }

 private:
  size_t max_frames_;
  Maps* maps_;
  Regs* regs_;
  std::vector<FrameData>* frames_;
};

}  // namespace unwindstack

#endif  // QUORVEL_HOST_UNWINDSTACK_PUBLIC_UNWINDER_H_
