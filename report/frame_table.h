// Keeps each distinct frame of all logs once, named and classified.
#pragma once

#include <deque>
#include <string_view>
#include <unordered_map>

#include "incident.h"
#include "text_pool.h"

namespace report {

struct FrameLine;
class Symbols;

class FrameTable {
 public:
  // Where symbols is given, it adds names, inlined calls and source lines. It stays the caller's.
  FrameTable(TextPool* pool, Symbols* symbols) : pool_(pool), symbols_(symbols) {}

  // The frame of a line, given from its pc on; null when the line is not that of a frame. A line
  // that the file's end may have cut is a frame only if its function is complete.
  const Frame* Find(std::string_view rest, bool may_be_cut);

  size_t size() const { return frames_.size(); }

 private:
  struct Names {
    std::string_view function;
    std::string_view plain;
    Role role = Role::kOwn;
    bool telling = true;
  };
  struct Map {
    std::string_view label;
    bool system = false;
  };

  const Frame* Add(const FrameLine& line);
  const Names& NamesOf(std::string_view symbol);
  const Map& MapOf(std::string_view name);

  TextPool* pool_;
  Symbols* symbols_;
  std::deque<Frame> frames_;
  std::unordered_map<std::string_view, const Frame*> frame_by_rest_;
  std::unordered_map<std::string_view, Names> names_by_symbol_;
  std::unordered_map<std::string_view, Map> map_by_name_;
};

}  // namespace report
