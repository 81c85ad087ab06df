// One walk up a thread's stack, from registers to frames.
#ifndef QUORVEL_HOST_UNWINDSTACK_STACK_WALK_H_
#define QUORVEL_HOST_UNWINDSTACK_STACK_WALK_H_

#include <ucontext.h>
// The library's interface for other processes, which reads all through functions given to it. Its
// header declares a `struct ucontext`, a name that the host layer's <ucontext.h> gives to something
// else.
#undef UNW_LOCAL_ONLY
#define ucontext libunwind_ucontext
#include <libunwind.h>
#undef ucontext

#include <vector>

#include <unwindstack/Unwinder.h>

#include "host_regs.h"
#include "module_cache.h"
#include "own_memory.h"
#include "process_maps.h"
#include "unwind_table.h"

namespace unwindstack {

// What walks keep from one to the next. Not for two threads at once.
class StackWalk {
 public:
  // Called at load only, because it allocates. Null on failure.
  static unw_addr_space_t CreateAddressSpace();

  // Appends at most `max_frames` frames to `frames`, innermost first.
  void Run(unw_addr_space_t space, const Regs& regs, Maps* maps, size_t max_frames,
           std::vector<FrameData>* frames);

 private:
  // What a frame's pc was obtained from.
  enum Origin {
    kInterrupted,  // the registers of a thread or a signal's context: the very instruction
    kReturned,     // a return address that the tables lead to
    kGuessed,      // a word that is a return address if it leads to code
  };

  struct Code {
    Mapping mapping;
    const Module* module;  // null: no ELF image
  };

  static int FindProcInfo(unw_addr_space_t space, unw_word_t pc, unw_proc_info_t* info, int need,
                          void* self);
  static void PutUnwindInfo(unw_addr_space_t space, unw_proc_info_t* info, void* self);
  static int GetDynInfoList(unw_addr_space_t space, unw_word_t* list, void* self);
  static int AccessMem(unw_addr_space_t space, unw_word_t addr, unw_word_t* value, int write,
                       void* self);
  static int AccessReg(unw_addr_space_t space, unw_regnum_t reg, unw_word_t* value, int write,
                       void* self);
  static int AccessFpReg(unw_addr_space_t space, unw_regnum_t reg, unw_fpreg_t* value, int write,
                         void* self);
  static int Resume(unw_addr_space_t space, unw_cursor_t* cursor, void* self);
  static int GetProcName(unw_addr_space_t space, unw_word_t addr, char* name, size_t size,
                         unw_word_t* offset, void* self);

  uint64_t InstructionPc() const;
  const Code* FindCode(uint64_t pc);
  const Code* Inspect();
  bool IsFrame(const Code* code) const;
  bool AtTrampoline();
  bool EntryCovers(uint64_t pc);
  bool AtFunctionStart(const Module& module);
  FrameData MakeFrame(size_t number, const Code* code) const;

  // Each moves to the calling frame; false at the end of the stack.
  bool Step(const Code* code);
  bool StepFromWildCall();
  bool StepOverSignal();
  bool StepByTable();
  bool StepByFramePointer();
  void Restart(Origin origin);
  void FetchRegisters();

  PageCache memory_;
  ModuleCache modules_;
  unw_addr_space_t space_ = nullptr;
  Maps* maps_ = nullptr;
  unw_cursor_t cursor_;
  bool cursor_valid_ = false;      // the cursor stands at the current frame
  uint64_t regs_[kRegCount] = {};  // of the current frame; with a valid cursor only pc and sp
  Origin origin_ = kInterrupted;
  bool has_entry_ = false;     // of the current frame: the table has one at or before the pc,
  bool beyond_entry_ = false;  // which turned out to end before it
  bool trampoline_ = false;    // the return from a signal handler
  FrameEntry entry_ = {};
  unsigned reads_left_ = 0;

  static constexpr size_t kCodes = 16;
  Code codes_[kCodes];  // met in this walk, the next to be replaced at code_count_ % kCodes
  size_t code_count_ = 0;
};

}  // namespace unwindstack

#endif  // QUORVEL_HOST_UNWINDSTACK_STACK_WALK_H_
