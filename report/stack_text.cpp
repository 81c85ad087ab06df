#include "stack_text.h"

#include <fmt/format.h>

#include <algorithm>

#include "frame_role.h"
#include "kernel_line.h"
#include "reason_table.h"

namespace report {
namespace {

constexpr size_t kColumnGap = 2;  // between a frame's function and its place

std::string WithOffset(std::string_view function, uint64_t offset) {
  return offset == 0 ? std::string(function) : fmt::format("{}+{}", function, offset);
}

// The text of a frame's first column: the function, or the pc where it has no name.
std::string NameOf(const Frame& frame) {
  if (frame.function.empty()) return fmt::format("0x{:x}", frame.pc);
  return WithOffset(frame.function, frame.function_offset);
}

// The same in so many columns. A function of the program's own that is too long loses its arguments
// and template arguments.
std::string NameIn(const Frame& frame, size_t width) {
  const std::string name = NameOf(frame);
  const bool plain = !frame.function.empty() && frame.role == Role::kOwn && WidthOf(name) > width;
  return Padded(plain ? WithOffset(frame.plain, frame.function_offset) : name, width);
}

std::string InlinedName(std::string_view function) {
  return fmt::format("{} (inlined)", function);
}

// The text of its second column: the source line, or the module.
std::string PlaceOf(const Frame& frame, const TextLayout& layout) {
  if (!frame.source.empty()) return std::string(frame.source);
  return layout.whole_paths ? std::string(frame.map) : MapName(frame.map);
}

struct Columns {
  size_t name = 0;
  size_t place = 0;
};

// The columns that a stack needs, shortened to so many together; the place gets at most half.
Columns ColumnsOf(const Thread& thread, FrameRange shown, size_t width, const TextLayout& layout) {
  Columns columns;
  for (size_t i = shown.begin; i < shown.end; ++i) {
    const Frame* const frame = thread.user[i];
    columns.name = std::max(columns.name, WidthOf(NameOf(*frame)));
    columns.place = std::max(columns.place, WidthOf(PlaceOf(*frame, layout)));
    for (const std::string_view inlined : frame->inlined) {
      columns.name = std::max(columns.name, WidthOf(InlinedName(inlined)));
    }
  }
  columns.place = std::min(columns.place, width / 2);
  columns.name = std::min(columns.name, width - std::min(width, columns.place + kColumnGap));
  return columns;
}

std::string PaintedName(const Frame& frame, const std::string& name, const Painter& painter) {
  if (frame.role != Role::kOwn) return painter.Dim(name);
  return frame.system ? name : painter.Bold(name);
}

PaintedLine FrameLine(const Frame& frame, const Columns& columns, const TextLayout& layout,
                      const Painter& painter) {
  const std::string name = NameIn(frame, columns.name);
  const std::string place = ShortenedInFront(PlaceOf(frame, layout), columns.place);
  return {PaintedName(frame, name, painter) + std::string(kColumnGap, ' ') + painter.Dim(place),
          columns.name + kColumnGap + WidthOf(place)};
}

PaintedLine Note(const std::string& note, size_t width, bool warning, const Painter& painter) {
  const std::string text = Shortened(note, width);
  return {warning ? painter.Warning(text) : painter.Dim(text), WidthOf(text)};
}

bool IsOwn(const Frame* frame) {
  return frame->role == Role::kOwn && !frame->system;
}

// The index behind the outermost frame of the program's own code; 0 where there is none.
size_t EndOfOwn(const Thread& thread) {
  size_t end = thread.user.size();
  while (end > 0 && !IsOwn(thread.user[end - 1])) --end;
  return end;
}

// The note below a kernel stack that is missing or empty; no text for any other.
std::string KernelNote(const Thread& thread) {
  if (!thread.has_kernel) return "not in the log";
  if (thread.state != '\0') return fmt::format("no stack, state {}", thread.state);
  return thread.kernel.empty() ? "empty" : "";
}

std::string_view KernelName(std::string_view frame, const TextLayout& layout) {
  return layout.whole_paths ? frame : KernelFunction(frame);
}

}  // namespace

FrameRange AllFrames(const Thread& thread) {
  return {0, thread.user.size()};
}

FrameRange OwnFrames(const Thread& thread, size_t most) {
  const auto own = std::find_if(thread.user.begin(), thread.user.end(), IsOwn);
  if (own == thread.user.end()) return {0, std::min(most, thread.user.size())};
  const auto begin = static_cast<size_t>(own - thread.user.begin());
  const size_t end = EndOfOwn(thread);
  // The line that counts what is left out takes as much room as one frame.
  return {begin, end - begin <= most + 1 ? end : begin + most};
}

std::vector<PaintedLine> UserStackLines(const Thread& thread, FrameRange shown, size_t width,
                                        const TextLayout& layout, const Painter& painter) {
  std::vector<PaintedLine> lines;
  if (thread.failed) {
    const std::string why = thread.failed->empty() ? "" : ": " + std::string(*thread.failed);
    lines.push_back(Note("could not be read" + why, width, true, painter));
  } else if (thread.user.empty()) {
    lines.push_back(Note(thread.has_user ? "no frames" : "not in the log", width, true, painter));
  }
  const Columns columns = ColumnsOf(thread, shown, width, layout);
  for (size_t i = shown.begin; i < shown.end; ++i) {
    for (const std::string_view inlined : thread.user[i]->inlined) {
      const std::string name = Shortened(InlinedName(inlined), columns.name);
      lines.push_back({painter.Bold(name), WidthOf(name)});
    }
    lines.push_back(FrameLine(*thread.user[i], columns, layout, painter));
  }
  if (const size_t end = EndOfOwn(thread); shown.end < end) {
    lines.push_back(
        Note(fmt::format("{} more frames: --all", end - shown.end), width, false, painter));
  }
  return lines;
}

std::vector<PaintedLine> KernelStackLines(const Thread& thread, size_t width,
                                          const TextLayout& layout, const Painter& painter) {
  std::vector<PaintedLine> lines;
  bool decided = false;
  for (const std::string_view frame : thread.kernel) {
    const bool decides = !decided && FindKernelWait(KernelFunction(frame)) != nullptr;
    decided = decided || decides;
    const std::string name = Shortened(KernelName(frame, layout), width);
    lines.push_back({decides ? painter.Bold(name) : painter.Dim(name), WidthOf(name)});
  }
  const std::string note = KernelNote(thread);
  if (!note.empty()) lines.push_back(Note(note, width, false, painter));
  return lines;
}

size_t KernelStackWidth(const Thread& thread, const TextLayout& layout) {
  size_t width = WidthOf(KernelNote(thread));
  for (const std::string_view frame : thread.kernel) {
    width = std::max(width, WidthOf(KernelName(frame, layout)));
  }
  return width;
}

}  // namespace report
