#include "frame_table.h"

#include "frame_line.h"
#include "frame_role.h"
#include "function_name.h"
#include "symbols.h"

namespace report {

const FrameTable::Names& FrameTable::NamesOf(std::string_view symbol) {
  const auto [entry, added] = names_by_symbol_.try_emplace(symbol);
  if (added) {
    const std::string function = Demangle(symbol);
    entry->second = {pool_->Intern(function), pool_->Intern(PlainName(function))};
  }
  return entry->second;
}

const Frame* FrameTable::Add(const FrameLine& line) {
  Frame frame;
  frame.pc = line.pc;
  frame.pc_digits = line.pc_digits;
  frame.offset = line.offset;
  frame.map = pool_->Intern(line.map);
  frame.symbol = pool_->Intern(line.function);
  frame.function_offset = line.function_offset;
  if (symbols_ != nullptr) symbols_->Describe(pool_, &frame);
  if (!frame.symbol.empty()) {
    const Names& names = NamesOf(frame.symbol);
    frame.function = names.function;
    frame.plain = names.plain;
  }
  frame.label =
      frame.function.empty() ? pool_->Intern("[" + MapName(frame.map) + "]") : frame.function;
  if (frame.plain.empty()) frame.plain = frame.label;
  frame.system = IsSystemMap(frame.map);
  frame.role = RoleOf(frame);
  frame.telling = IsTelling(frame);
  return &frames_.emplace_back(frame);
}

const Frame* FrameTable::Find(std::string_view rest, bool may_be_cut) {
  const auto found = frame_by_rest_.find(rest);
  if (found != frame_by_rest_.end() && !may_be_cut) return found->second;
  const std::optional<FrameLine> line = ParseFrameRest(rest);
  if (!line || (may_be_cut && line->function.empty())) return nullptr;
  if (found != frame_by_rest_.end()) return found->second;
  const Frame* const frame = Add(*line);
  frame_by_rest_.emplace(pool_->Keep(rest), frame);
  return frame;
}

}  // namespace report
