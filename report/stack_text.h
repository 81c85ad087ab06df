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

// Which frames of a user stack are shown: from begin on, before end.
struct FrameRange {
  size_t begin = 0;
  size_t end = 0;
};

FrameRange AllFrames(const Thread& thread);

// The frames from the program's own innermost function to its outermost, but so many at most; those
// of the top where none is its own.
FrameRange OwnFrames(const Thread& thread, size_t most);

// These frames of the user stack in at most so many columns: the program's own code bold, the
// machinery of waiting dimmed. What is left out of its own code is counted.
std::vector<PaintedLine> UserStackLines(const Thread& thread, FrameRange shown, size_t width,
                                        const TextLayout& layout, const Painter& painter);

// The kernel stack likewise; the function that tells the reason is bold.
std::vector<PaintedLine> KernelStackLines(const Thread& thread, size_t width,
                                          const TextLayout& layout, const Painter& painter);

// How many columns the widest line of a kernel stack takes.
size_t KernelStackWidth(const Thread& thread, const TextLayout& layout);

}  // namespace report
