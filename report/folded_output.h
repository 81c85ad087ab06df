// Folded stacks, as flame graphs are drawn from.
#pragma once

#include <cstdint>
#include <map>
#include <ostream>
#include <string>

#include "incident.h"

namespace report {

class FoldedStacks {
 public:
  void Add(const Incident& incident);

  // One line a distinct stack: "program;watched;outermost;...;innermost count".
  void Write(std::ostream* out) const;

 private:
  std::map<std::string, uint64_t> counts_;
};

}  // namespace report
