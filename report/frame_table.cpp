#include "frame_table.h"

#include "frame_line.h"
#include "frame_role.h"
#include "function_name.h"
#include "symbols.h"

namespace report {

const FrameTable::Names& FrameTable::NamesOf(std::string_view symbol) {
  const auto [entry, added] = names_by_symbol_.try_emplace(symbol);
  if (added) {
    const std::string function = Demangle(symbol), plain = PlainName(function);
    const Role role = RoleOf(function, plain);
    entry->second = {pool_->Intern(function), pool_->Intern(plain), role, IsTelling(role, plain)};
  }
  return entry->second;
}

const FrameTable::Map& FrameTable::MapOf(std::string_view name) {
  const auto [entry, added] = map_by_name_.try_emplace(name);
  if (added) entry->second = {pool_->Intern("[" + MapName(name) + "]"), IsSystemMap(name)};
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
  const Map& map = MapOf(frame.map);
  frame.system = map.system;
  if (frame.symbol.empty()) {
    frame.label = frame.plain = map.label;
    frame.role = map.system ? Role::kWaiting : Role::kOwn;
    frame.telling = !map.system;
  } else {
    const Names& names = NamesOf(frame.symbol);
    frame.label = frame.function = names.function;
    frame.plain = names.plain;
    frame.role = names.role;
    frame.telling = names.telling;
  }
  return &frames_.emplace_back(std::move(frame));
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
