#include "stack_walk.h"

#include <signal.h>
#include <string.h>
#include <sys/mman.h>

#include "interned_text.h"
#include "machine_context.h"

// Exported by the unwinding library for its remote users, declared in none of its headers.
extern "C" int UNW_OBJ(dwarf_search_unwind_table)(unw_addr_space_t space, unw_word_t pc,
                                                  unw_dyn_info_t* table, unw_proc_info_t* info,
                                                  int need_unwind_info, void* arg);

namespace unwindstack {
namespace {

// Words of memory that one step may read: with a false table it could go on for ever.
constexpr unsigned kReadsPerStep = 32 << 10;

#if defined(__x86_64__)
// mov $SYS_rt_sigreturn, %rax; syscall
constexpr unsigned char kTrampoline[] = {0x48, 0xc7, 0xc0, 0x0f, 0, 0, 0, 0x0f, 0x05};
constexpr uint64_t kCallSize = 1;  // of its last byte, which is enough to lie within it
constexpr uint64_t kContextAboveSp = offsetof(ucontext_t, uc_mcontext);
static_assert(UNW_X86_64_RSP == kRegSp && UNW_X86_64_RIP == kRegPc, "one numbering");
#else
// mov x8, #SYS_rt_sigreturn; svc #0
constexpr unsigned char kTrampoline[] = {0x68, 0x11, 0x80, 0xd2, 0x01, 0, 0, 0xd4};
constexpr uint64_t kCallSize = 4;
constexpr uint64_t kContextAboveSp = sizeof(siginfo_t) + offsetof(ucontext_t, uc_mcontext);
static_assert(UNW_AARCH64_SP == kRegSp && UNW_AARCH64_PC == kRegPc, "one numbering");
#endif

}  // namespace

unw_addr_space_t StackWalk::CreateAddressSpace() {
  static unw_accessors_t accessors = {FindProcInfo, PutUnwindInfo, GetDynInfoList, AccessMem,
                                      AccessReg,    AccessFpReg,   Resume,         GetProcName};
  unw_addr_space_t space = unw_create_addr_space(&accessors, 0);
  // Its cache of register states outlives libraries, and confuses the two sides of a return
  // address.
  if (space != nullptr) unw_set_caching_policy(space, UNW_CACHE_NONE);
  return space;
}

int StackWalk::FindProcInfo(unw_addr_space_t space, unw_word_t pc, unw_proc_info_t* info, int need,
                            void* self) {
  auto* const walk = static_cast<StackWalk*>(self);
  const FrameEntry& entry = walk->entry_;
  if (pc < entry.start || pc >= entry.end) return -UNW_EINVAL;  // at ENOINFO it would guess
  unw_dyn_info_t table = {};
  table.format = UNW_INFO_FORMAT_REMOTE_TABLE;
  table.start_ip = entry.start;
  table.end_ip = entry.end;
  table.u.rti.segbase = entry.table;
  table.u.rti.table_data = entry.entry;
  table.u.rti.table_len = 1;  // words, so one entry
  const int result = UNW_OBJ(dwarf_search_unwind_table)(space, pc, &table, info, need, self);
  walk->beyond_entry_ = result == -UNW_ENOINFO;
  return walk->beyond_entry_ ? -UNW_EINVAL : result;
}

void StackWalk::PutUnwindInfo(unw_addr_space_t, unw_proc_info_t*, void*) {}

int StackWalk::GetDynInfoList(unw_addr_space_t, unw_word_t*, void*) {
  return -UNW_ENOINFO;
}

int StackWalk::AccessMem(unw_addr_space_t, unw_word_t addr, unw_word_t* value, int write,
                         void* self) {
  auto* const walk = static_cast<StackWalk*>(self);
  if (write != 0 || walk->reads_left_ == 0) return -UNW_EINVAL;
  --walk->reads_left_;
  return walk->memory_.Load(addr, value) ? 0 : -UNW_EINVAL;
}

int StackWalk::AccessReg(unw_addr_space_t, unw_regnum_t reg, unw_word_t* value, int write,
                         void* self) {
  auto* const walk = static_cast<StackWalk*>(self);
  if (write != 0 || reg < 0 || static_cast<size_t>(reg) >= kRegCount) return -UNW_EBADREG;
  // The library looks up the pc of a new cursor as it is.
  *value = reg == kRegPc ? walk->InstructionPc() : walk->regs_[reg];
  return 0;
}

int StackWalk::AccessFpReg(unw_addr_space_t, unw_regnum_t, unw_fpreg_t*, int, void*) {
  return -UNW_EBADREG;
}

int StackWalk::Resume(unw_addr_space_t, unw_cursor_t*, void*) {
  return -UNW_EINVAL;
}

int StackWalk::GetProcName(unw_addr_space_t, unw_word_t, char*, size_t, unw_word_t*, void*) {
  return -UNW_ENOINFO;
}

// An address within the instruction that the current frame is at: the interrupted one, or the call.
uint64_t StackWalk::InstructionPc() const {
  const uint64_t pc = regs_[kRegPc];
  return origin_ == kInterrupted || pc < kCallSize ? pc : pc - kCallSize;
}

void StackWalk::Run(unw_addr_space_t space, const Regs& regs, Maps* maps, size_t max_frames,
                    std::vector<FrameData>* frames) {
  space_ = space;
  maps_ = maps;
  code_count_ = 0;
  memcpy(regs_, static_cast<const HostRegs&>(regs).values(), sizeof(regs_));
  memory_.BeginUnwind();
  Restart(kInterrupted);
  while (frames->size() < max_frames) {
    const Code* const code = Inspect();
    if (!IsFrame(code)) break;
    frames->push_back(MakeFrame(frames->size(), code));
    const uint64_t pc = regs_[kRegPc];
    const uint64_t sp = regs_[kRegSp];
    if (frames->size() == max_frames || !Step(code)) break;
    if (regs_[kRegPc] == pc && regs_[kRegSp] == sp) break;  // on a link register's old value
  }
}

// Finds the code that holds the current pc, null if none does, and how to go on from there.
const StackWalk::Code* StackWalk::Inspect() {
  has_entry_ = beyond_entry_ = trampoline_ = false;
  const Code* code = FindCode(InstructionPc());
  // Only a trampoline is returned to without a call before it.
  const bool uncalled = code == nullptr && origin_ != kInterrupted;
  if (uncalled) code = FindCode(regs_[kRegPc]);
  if (code == nullptr) return nullptr;
  if (const Module* const module = code->module) {
    const ElfImage::Range segment = module->image.unwind_segment();
    const uint64_t start = module->bias + segment.vaddr;
    memory_.SetStable(start, start + (module->stable ? segment.size : 0), module->content);
    has_entry_ = FindFrameEntry(*module, InstructionPc(), &memory_, &entry_);
  }
  const bool signal_frame = has_entry_ && entry_.signal_frame && EntryCovers(InstructionPc());
  trampoline_ = AtTrampoline() && (!has_entry_ || signal_frame || !EntryCovers(InstructionPc()));
  if (trampoline_ || signal_frame) origin_ = kInterrupted;
  return uncalled && !trampoline_ ? nullptr : code;
}

// Whether the current pc is a frame of the stack. One that no code holds is: where execution went
// astray, and where a return address has been overwritten. Zero marks the end of a stack.
bool StackWalk::IsFrame(const Code* code) const {
  if (code != nullptr || origin_ == kInterrupted) return true;
  return origin_ == kReturned && regs_[kRegPc] != 0;
}

// The executable mapping that holds `pc`; null if none does.
const StackWalk::Code* StackWalk::FindCode(uint64_t pc) {
  for (size_t i = 0; i < code_count_ && i < kCodes; ++i) {
    const Mapping& mapping = codes_[i].mapping;
    if (pc >= mapping.start && pc < mapping.end) return &codes_[i];
  }
  Mapping mapping;
  if (!FindMapping(maps_, pc, &mapping) || !(mapping.prot & PROT_EXEC)) return nullptr;
  Code* const code = &codes_[code_count_++ % kCodes];
  code->mapping = mapping;
  code->module = modules_.Get(mapping, maps_);
  return code;
}

FrameData StackWalk::MakeFrame(size_t number, const Code* code) const {
  FrameData frame;
  frame.num = number;
  frame.pc = frame.rel_pc = code != nullptr ? InstructionPc() : regs_[kRegPc];
  frame.sp = regs_[kRegSp];
  Mapping data;  // of a pc that is not in code
  if (code == nullptr && !FindMapping(maps_, frame.pc, &data)) return frame;
  const Mapping& mapping = code != nullptr ? code->mapping : data;
  frame.map_name = MakeSharedString(mapping.text);
  frame.map_start = mapping.start;
  frame.map_end = mapping.end;
  frame.map_exact_offset = mapping.offset;
  frame.map_flags = mapping.prot;
  const Module* const module = code != nullptr ? code->module : nullptr;
  if (module == nullptr) {
    frame.rel_pc = frame.pc - mapping.start + (mapping.IsFile() ? mapping.offset : 0);
    return frame;
  }
  frame.rel_pc = frame.pc - module->bias;
  frame.map_elf_start_offset = module->elf_start_offset;
  frame.map_load_bias = module->image.load_bias();
  ElfImage::Function function;
  if (module->image.FindFunction(frame.rel_pc, &function)) {
    frame.function_name = MakeSharedString(Intern(function.name));
    frame.function_offset = frame.rel_pc - function.start;
  }
  return frame;
}

// Has the next step begin from regs_ alone.
void StackWalk::Restart(Origin origin) {
  origin_ = origin;
  cursor_valid_ = false;
}

bool StackWalk::Step(const Code* code) {
  if (code == nullptr) return origin_ == kInterrupted && StepFromWildCall();
  if (trampoline_) return StepOverSignal();
  if (has_entry_ && StepByTable()) return true;
  if (has_entry_ && !beyond_entry_ && space_ != nullptr) return false;  // the table says: the end
  // A coroutine's first function returns to where another begins, though nobody called it there.
  const bool outermost =
      origin_ != kInterrupted && code->module != nullptr && AtFunctionStart(*code->module);
  return !outermost && StepByFramePointer();
}

// A call through a null or wild pointer: the next frame is where that call would return to, if that
// is code.
bool StackWalk::StepFromWildCall() {
  FetchRegisters();
#if defined(__x86_64__)
  if (!memory_.Load(regs_[kRegSp], &regs_[kRegPc])) return false;
  regs_[kRegSp] += sizeof(uint64_t);
#else
  regs_[kRegPc] = regs_[kRegLr];
#endif
  Restart(kGuessed);
  return true;
}

// Whether the current frame's table entry is of `pc`. The table itself does not say where one ends.
bool StackWalk::EntryCovers(uint64_t pc) {
  unw_proc_info_t info;
  reads_left_ = kReadsPerStep;
  return space_ != nullptr && FindProcInfo(space_, pc, &info, 0, this) == 0;
}

// Whether the current pc is where some function's table entry begins.
bool StackWalk::AtFunctionStart(const Module& module) {
  FrameEntry entry;
  return FindFrameEntry(module, regs_[kRegPc], &memory_, &entry) && entry.start == regs_[kRegPc];
}

bool StackWalk::AtTrampoline() {
  unsigned char code[sizeof(kTrampoline)];
  return memory_.Load(regs_[kRegPc], &code) && memcmp(code, kTrampoline, sizeof(code)) == 0;
}

bool StackWalk::StepOverSignal() {
  mcontext_t context;
  if (!memory_.Read(regs_[kRegSp] + kContextAboveSp, &context, kMachineContextHead)) return false;
  ReadMachineContext(context, regs_);
  Restart(kInterrupted);
  return true;
}

bool StackWalk::StepByTable() {
  if (space_ == nullptr) return false;
  if (!cursor_valid_ && unw_init_remote(&cursor_, space_, this) != 0) return false;
  cursor_valid_ = true;
  reads_left_ = kReadsPerStep;
  unw_word_t pc, sp;
  if (unw_step(&cursor_) <= 0 || unw_get_reg(&cursor_, UNW_REG_IP, &pc) != 0 ||
      unw_get_reg(&cursor_, UNW_REG_SP, &sp) != 0) {
    return false;
  }
  if (reads_left_ == 0) return false;  // the library guesses where its table led nowhere
  // A caller's frame lies above, unless it was interrupted by a signal, on another stack.
  if (sp < regs_[kRegSp] && !entry_.signal_frame) return false;
  regs_[kRegPc] = pc;
  regs_[kRegSp] = sp;
  origin_ = entry_.signal_frame ? kInterrupted : kReturned;
  return true;
}

void StackWalk::FetchRegisters() {
  if (!cursor_valid_) return;
  for (size_t i = 0; i < kRegCount; ++i) {
    unw_word_t value;
    if (i == kRegPc || i == kRegSp) continue;
    regs_[i] = unw_get_reg(&cursor_, static_cast<int>(i), &value) == 0 ? value : 0;
  }
}

// The last resort, for code without tables: it may keep a frame pointer, which is followed if it
// leads up the stack, to a return address in code. The caller's own need not be a frame pointer: a
// caller with tables has no use for one.
bool StackWalk::StepByFramePointer() {
  reads_left_ = kReadsPerStep;
  FetchRegisters();
  const uint64_t fp = regs_[kRegFp];
  uint64_t record[2];  // the caller's frame pointer, the return address
  if (fp < regs_[kRegSp] || fp % sizeof(uint64_t) != 0 || !memory_.Load(fp, &record)) return false;
  regs_[kRegFp] = record[0];
  regs_[kRegPc] = record[1];
  regs_[kRegSp] = fp + sizeof(record);
  Restart(kGuessed);
  return true;
}

}  // namespace unwindstack
