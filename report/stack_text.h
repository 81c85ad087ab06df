// The stacks of a thread as lines for a terminal.
#pragma once

#include <string>
#include <vector>

#include "incident.h"
#include "painter.h"

namespace report {

// How wide the output is, and how much of each frame it shows.
struct TextLayout {
  size_t width = 100;        // columns
  bool whole_paths = false;  // of modules, instead of their names; kernel frames with their offsets
};

// A painted line, and how many columns it takes.
struct PaintedLine {
  std::string text;
  size_t width = 0;
};

// The user stack in at most so many columns and, but for whole_paths, so many frames: the program's
// own code bold, the machinery of waiting dimmed.
std::vector<PaintedLine> UserStackLines(const Thread& thread, size_t width, size_t most_frames,
                                        const TextLayout& layout, const Painter& painter);

// The kernel stack likewise; the function that tells the reason is bold.
std::vector<PaintedLine> KernelStackLines(const Thread& thread, size_t width,
                                          const TextLayout& layout, const Painter& painter);

// How many columns the widest line of a kernel stack takes.
size_t KernelStackWidth(const Thread& thread, const TextLayout& layout);

}  // namespace report
