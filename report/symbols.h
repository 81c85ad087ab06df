// Names from unstripped files.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "incident.h"
#include "text_pool.h"

namespace report {

class Symbols {
 public:
  // Looks for files under these directories, by a map's whole path first, then by its name.
  explicit Symbols(std::vector<std::string> directories);
  ~Symbols();
  Symbols(const Symbols&) = delete;
  Symbols& operator=(const Symbols&) = delete;

  // Adds to a frame the name it lacks, its source line and the calls inlined there, as far as an
  // unstripped file tells them.
  void Describe(TextPool* pool, Frame* frame);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace report
