#include "incident_text.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>

#include "frame_role.h"
#include "log_time.h"
#include "overview.h"
#include "reason.h"

namespace report {
namespace {

constexpr size_t kGap = 3;          // between user and kernel stack
constexpr size_t kWhyIndent = 7;    // as wide as "Why    "
constexpr size_t kGroupFrames = 8;  // of each group of other threads
constexpr size_t kShortFrames = 5;  // of an incident in short
constexpr size_t kMaxTids = 12;     // that are listed of a group
constexpr size_t kMaxProblems = 5;
constexpr size_t kMaxPrinted = 5;
constexpr std::string_view kIndent = "  ";

std::string Plural(size_t count, std::string_view word) {
  return fmt::format("{} {}{}", count, word, count == 1 ? "" : "s");
}

// "2026-11-22 21:13:48 UTC+01:00", in the zone of the device.
std::string LocalText(std::optional<int64_t> local, const Incident& incident) {
  if (!local) return "an unknown time";
  std::string text = IsoText(*local);
  text[text.find('T')] = ' ';
  if (!incident.utc_offset_seconds) return text;
  const int64_t offset = *incident.utc_offset_seconds;
  if (offset == 0) return text + " UTC";
  return text + fmt::format(" UTC{}{:02}:{:02}", offset < 0 ? '-' : '+', std::abs(offset) / 3600,
                            std::abs(offset) / 60 % 60);
}

class Writer {
 public:
  Writer(const Incident& incident, const TextLayout& layout, const Painter& painter)
      : incident_(incident), layout_(layout), painter_(painter) {}

  std::string Full() {
    const Overview overview = MakeOverview(incident_);
    Head();
    Why();
    if (!overview.hint.empty()) {
      Line(std::string(kWhyIndent, ' ') + Shortened(overview.hint, WhyRoom()));
    }
    WatchedStacks();
    Related(overview);
    Others(overview);
    Warnings(overview);
    Printed();
    return std::move(text_);
  }

  std::string Short() {
    Head();
    Why();
    if (incident_.Watched() != nullptr) {
      StackLines(*incident_.Watched(), kIndent.size(), kShortFrames);
    }
    return std::move(text_);
  }

 private:
  void Line(const std::string& line) { text_ += line + '\n'; }

  void Blank() { text_ += '\n'; }

  void Head() {
    const std::string program(incident_.program.value_or("An unnamed program"));
    const std::string watch =
        incident_.watch ? fmt::format("\"{}\"", *incident_.watch) : "a watch without a name";
    const std::optional<int64_t> armed = incident_.ArmedSeconds();
    const std::string span = armed ? fmt::format(" for {} s", *armed) : "";
    // A long name must not push the span off the line.
    const size_t room = layout_.width - std::min(layout_.width, WidthOf(span));
    Line(painter_.Alarm(Shortened(fmt::format("{} hung in {}", program, watch), room) + span));
    Line(fmt::format("  since {}, thread {}", LocalText(incident_.started_local, incident_),
                     incident_.tid == 0 ? "unknown" : std::to_string(incident_.tid)));
    Line(painter_.Dim("  " + ShortenedInFront(incident_.file, layout_.width - kIndent.size())));
  }

  size_t WhyRoom() const { return layout_.width - std::min(layout_.width, kWhyIndent); }

  void Why() {
    Line(painter_.Heading("Why    ") + painter_.Bold(Shortened(incident_.reason.text, WhyRoom())));
    const Thread* const watched = incident_.Watched();
    if (watched == nullptr) return;
    const Frame* const own = FindOwnFrame(watched->user);
    const bool runs = incident_.reason.kind == "running";
    if (own == nullptr || (runs && own == watched->user.front())) return;
    const std::string place = own->source.empty() ? MapName(own->map) : std::string(own->source);
    const std::string asked = runs ? "called by " : "asked for by ";
    const std::string in = Shortened(" in " + place, WhyRoom() / 2);
    const size_t room = WhyRoom() - std::min(WhyRoom(), WidthOf(asked) + WidthOf(in));
    const std::string_view name = WidthOf(own->label) <= room ? own->label : own->plain;
    Line(std::string(kWhyIndent, ' ') + asked + painter_.Bold(Shortened(name, room)) +
         painter_.Dim(in));
  }

  void WatchedStacks() {
    const Thread* const watched = incident_.Watched();
    Blank();
    if (watched == nullptr) {
      Line(painter_.Warning("The log has no stack of the watched thread."));
      return;
    }
    static constexpr std::string_view kUser = "User stack, innermost first",
                                      kKernel = "Kernel stack";
    const size_t room = layout_.width - std::min(layout_.width, kIndent.size() + kGap);
    const size_t right =
        std::min(std::max(KernelStackWidth(*watched, layout_), kKernel.size()), room * 2 / 5);
    const auto user =
        UserStackLines(*watched, AllFrames(*watched), room - right, layout_, painter_);
    const auto kernel = KernelStackLines(*watched, right, layout_, painter_);
    size_t left = kUser.size();
    for (const PaintedLine& line : user) left = std::max(left, line.width);
    const auto beside = [this, left](const PaintedLine& a, const PaintedLine* b) {
      const size_t padding = left - std::min(left, a.width) + kGap;
      Line(std::string(kIndent) + a.text +
           (b == nullptr ? "" : std::string(padding, ' ') + b->text));
    };
    const PaintedLine kernel_head = {painter_.Heading(kKernel), kKernel.size()};
    beside({painter_.Heading(kUser), kUser.size()}, &kernel_head);
    for (size_t i = 0; i < std::max(user.size(), kernel.size()); ++i) {
      beside(i < user.size() ? user[i] : PaintedLine(), i < kernel.size() ? &kernel[i] : nullptr);
    }
  }

  static std::string Tids(const ThreadGroup& group) {
    std::string tids;
    for (size_t i = 0; i < std::min(group.threads.size(), kMaxTids); ++i) {
      tids += (i == 0 ? "" : ", ") + std::to_string(group.threads[i]->tid);
    }
    if (group.threads.size() > kMaxTids) tids += ", ...";
    return tids;
  }

  // The group's own functions on one line.
  static std::string Path(const Thread& thread) {
    std::string path;
    for (const Frame* frame : thread.user) {
      if (frame->role != Role::kOwn) continue;
      path += (path.empty() ? "" : " < ") + std::string(frame->plain);
    }
    return path;
  }

  void GroupHead(const ThreadGroup& group) {
    const std::string count = Plural(group.threads.size(), "thread");
    const std::string tids = "  " + Tids(group);
    const size_t room =
        layout_.width - std::min(layout_.width, kIndent.size() + WidthOf(count) + 2);
    const std::string reason = Shortened(group.reason.text, room);
    const std::string ids = Shortened(tids, room - std::min(room, WidthOf(reason)));
    Line(std::string(kIndent) + painter_.Bold(count) + ": " + reason + painter_.Dim(ids));
  }

  void FullGroup(const ThreadGroup& group) {
    GroupHead(group);
    StackLines(*group.threads.front(), 2 * kIndent.size(), kGroupFrames);
  }

  void StackLines(const Thread& thread, size_t indent, size_t most_frames) {
    const size_t width = layout_.width - std::min(layout_.width, indent);
    const FrameRange shown =
        layout_.whole_paths ? AllFrames(thread) : OwnFrames(thread, most_frames);
    for (const PaintedLine& line : UserStackLines(thread, shown, width, layout_, painter_)) {
      Line(std::string(indent, ' ') + line.text);
    }
  }

  void OneLineGroup(const ThreadGroup& group) {
    const std::string count = Plural(group.threads.size(), "thread");
    const std::string path = Path(*group.threads.front());
    const std::string line = fmt::format("{}: {}: {}  {}", count, group.reason.kind,
                                         path.empty() ? group.reason.text : path, Tids(group));
    Line(painter_.Dim(std::string(kIndent) + Shortened(line, layout_.width - kIndent.size())));
  }

  void Related(const Overview& overview) {
    if (overview.related.empty()) return;
    Blank();
    Line(painter_.Heading("Who else is in the same lock or function"));
    for (const ThreadGroup& group : overview.related) FullGroup(group);
  }

  void Others(const Overview& overview) {
    if (!overview.others.empty()) {
      Blank();
      Line(painter_.Heading("Other threads, rare ones first"));
      for (const ThreadGroup& group : overview.others) FullGroup(group);
    }
    if (!overview.idle.empty()) {
      Blank();
      Line(painter_.Heading("Idle threads"));
      for (const ThreadGroup& group : overview.idle) OneLineGroup(group);
    }
  }

  void Warnings(const Overview& overview) {
    if (!overview.cut.empty()) {
      Blank();
      const std::string threads = Plural(overview.cut.size(), "thread");
      Line(painter_.Warning("The log was cut: " + threads + " without a user stack."));
    }
    if (incident_.problem_count == 0) return;
    Blank();
    Line(painter_.Warning(Plural(incident_.problem_count, "problem") + " in this log"));
    for (size_t i = 0; i < std::min(incident_.problems.size(), kMaxProblems); ++i) {
      Line(std::string(kIndent) + Shortened(incident_.problems[i], layout_.width - kIndent.size()));
    }
    if (incident_.problem_count > kMaxProblems) {
      Line(std::string(kIndent) +
           fmt::format("... and {} more", incident_.problem_count - kMaxProblems));
    }
  }

  void Printed() {
    if (incident_.printed.empty()) return;
    Blank();
    Line(painter_.Heading("Printed by the program"));
    for (size_t i = 0; i < std::min(incident_.printed.size(), kMaxPrinted); ++i) {
      Line(std::string(kIndent) + Shortened(incident_.printed[i], layout_.width - kIndent.size()));
    }
  }

  const Incident& incident_;
  const TextLayout& layout_;
  const Painter& painter_;
  std::string text_;
};

}  // namespace

std::string FullText(const Incident& incident, const TextLayout& layout, const Painter& painter) {
  return Writer(incident, layout, painter).Full();
}

std::string ShortText(const Incident& incident, const TextLayout& layout, const Painter& painter) {
  return Writer(incident, layout, painter).Short();
}

}  // namespace report
