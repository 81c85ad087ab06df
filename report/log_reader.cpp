#include "log_reader.h"

#include <fmt/format.h>
#include <string.h>

#include <charconv>
#include <limits>
#include <unordered_map>

#include "analysis.h"
#include "frame_line.h"
#include "frame_table.h"
#include "kernel_line.h"
#include "line_source.h"
#include "log_time.h"
#include "safe_text.h"
#include "text_pool.h"

namespace report {
namespace {

constexpr size_t kMaxProblems = 100;  // that are kept; the others are counted
constexpr size_t kMaxPrinted = 100;   // lines of the program's own
constexpr uint64_t kLinesPerProgress = 4096;
constexpr size_t kMaxSharedFrames = 64 * 1024;  // some 25 MB
constexpr size_t kMaxQuoted = 80;               // of a line, in a problem

bool TakePrefix(std::string_view* text, std::string_view prefix) {
  if (text->substr(0, prefix.size()) != prefix) return false;
  text->remove_prefix(prefix.size());
  return true;
}

// A thread's id, written out in full; 0 when the text is none.
int ParseTid(std::string_view text) {
  int tid = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), tid);
  return error == std::errc() && end == text.data() + text.size() && tid > 0 ? tid : 0;
}

// One pass over the lines of a log.
class Parser {
 public:
  Parser(TextPool* pool, FrameTable* frames, Incident* incident)
      : pool_(pool), frames_(frames), incident_(incident) {}

  void Take(const LineSource::Line& line, uint64_t number);
  bool has_tid_line() const { return has_tid_line_; }

 private:
  enum class Section { kHeader, kKernel, kUser };

  bool TakeSectionStart(std::string_view text, bool ended);
  void BeginSection(Section section, int tid);
  void TakeFailure(std::string_view rest);
  bool TakeHeaderLine(std::string_view text);
  bool TakeHeaderTime(std::string_view text);
  bool TakeProgram(std::string_view text);
  void TakeKernelLine(std::string_view text, bool ended);
  void TakeUserLine(std::string_view text, bool ended);
  Thread* ThreadOf(int tid);
  void Problem(std::string_view what);
  void Problem(std::string_view what, std::string_view text);

  TextPool* pool_;
  FrameTable* frames_;
  Incident* incident_;
  Section section_ = Section::kHeader;
  size_t thread_ = 0;      // the index of the section's thread
  bool skipping_ = false;  // the section is a second one of its thread
  unsigned next_frame_ = 0;
  bool has_tid_line_ = false;
  uint64_t number_ = 0;
  std::unordered_map<int, size_t> index_by_tid_;
};

void Parser::Problem(std::string_view what) {
  if (++incident_->problem_count > kMaxProblems) return;
  incident_->problems.push_back(fmt::format("line {}: {}", number_, what));
}

void Parser::Problem(std::string_view what, std::string_view text) {
  const bool whole = text.size() <= kMaxQuoted;
  Problem(fmt::format("{}: {}{}", what, SafeText(text.substr(0, kMaxQuoted)), whole ? "" : "..."));
}

Thread* Parser::ThreadOf(int tid) {
  const auto [entry, added] = index_by_tid_.try_emplace(tid, incident_->threads.size());
  if (added) incident_->threads.emplace_back().tid = tid;
  thread_ = entry->second;
  return &incident_->threads[thread_];
}

void Parser::BeginSection(Section section, int tid) {
  Thread* const thread = ThreadOf(tid);
  bool* const seen = section == Section::kKernel ? &thread->has_kernel : &thread->has_user;
  skipping_ = *seen;
  if (skipping_) Problem(fmt::format("a second section of thread {}, which is left out", tid));
  *seen = true;
  section_ = section;
  next_frame_ = 0;
}

// "Unwind failed: tid = N: reason", after its first words.
void Parser::TakeFailure(std::string_view rest) {
  const size_t colon = rest.find(':');
  const int tid = colon == rest.npos ? 0 : ParseTid(rest.substr(0, colon));
  if (tid == 0) return Problem("a failed unwinding without its thread");
  std::string_view reason = rest.substr(colon + 1);
  TakePrefix(&reason, " ");
  ThreadOf(tid)->failed = pool_->Intern(reason);
  section_ = Section::kUser;
  skipping_ = true;  // no frames belong to it
}

bool Parser::TakeSectionStart(std::string_view text, bool ended) {
  if (TakePrefix(&text, "Unwind failed: tid = ")) {
    TakeFailure(text);
    return true;
  }
  const bool kernel = TakePrefix(&text, "kernel stack tid = ");
  if (!kernel && !TakePrefix(&text, "tid = ")) return false;
  const int tid = ended ? ParseTid(text) : 0;  // an id that was cut would be another thread's
  if (tid == 0) {
    Problem("a section without its thread");
    skipping_ = true;
    if (section_ == Section::kHeader) section_ = kernel ? Section::kKernel : Section::kUser;
  } else {
    BeginSection(kernel ? Section::kKernel : Section::kUser, tid);
  }
  return true;
}

bool Parser::TakeHeaderTime(std::string_view text) {
  if (TakePrefix(&text, "time start: ") && !incident_->started_local) {
    incident_->started_local = ParseClockText(text);
    if (!incident_->started_local) Problem("no time", text);
    return true;
  }
  if (incident_->written_local) return false;
  incident_->written_local = ParseClockText(text);
  return incident_->written_local.has_value();
}

// ">>> name <<<", or ">>> exe:/path <<<" where the name is not known.
bool Parser::TakeProgram(std::string_view text) {
  static constexpr std::string_view kEnd = " <<<";
  if (incident_->program || !TakePrefix(&text, ">>> ") || text.size() < kEnd.size() ||
      text.substr(text.size() - kEnd.size()) != kEnd) {
    return false;
  }
  text.remove_suffix(kEnd.size());
  TakePrefix(&text, "exe:");
  incident_->program = pool_->Intern(text);
  return true;
}

bool Parser::TakeHeaderLine(std::string_view text) {
  if (TakeProgram(text)) return true;
  std::string_view rest = text;
  if (!has_tid_line_ && TakePrefix(&rest, "timeout tid: ")) {
    has_tid_line_ = true;
    incident_->tid = ParseTid(rest);
    if (incident_->tid == 0) Problem("no thread's id", rest);
    return true;
  }
  if (!incident_->watch && TakePrefix(&rest, "timeout function: ")) {
    incident_->watch = pool_->Intern(rest);
    return true;
  }
  if (!incident_->fingerprint && TakePrefix(&rest, "Build fingerprint: ")) {
    incident_->fingerprint = pool_->Intern(rest);
    return true;
  }
  return TakeHeaderTime(text);
}

void Parser::TakeKernelLine(std::string_view text, bool ended) {
  if (skipping_) return;
  Thread& thread = incident_->threads[thread_];
  const std::optional<KernelLine> line = ParseKernelLine(text, !ended);
  if (!line) {
    if (ended) Problem("not a line of a kernel stack", text);  // a cut line was counted already
    return;
  }
  if (line->state != '\0') thread.state = line->state;
  if (!line->frame.empty()) thread.kernel.push_back(pool_->Intern(line->frame));
}

void Parser::TakeUserLine(std::string_view text, bool ended) {
  if (skipping_) return;
  std::string_view rest = text;
  unsigned number = 0;
  const Frame* const frame =
      TakeFrameNumber(&rest, &number) ? frames_->Find(rest, !ended) : nullptr;
  if (frame == nullptr) {
    if (ended) Problem("not a frame", text);  // likewise
    return;
  }
  if (number != next_frame_) {
    Problem(fmt::format("frame {} where frame {} belongs", number, next_frame_));
  }
  next_frame_ = number + 1;
  incident_->threads[thread_].user.push_back(frame);
}

void Parser::Take(const LineSource::Line& line, uint64_t number) {
  number_ = number;
  if (line.too_long) Problem("too long, left out");
  if (line.text.empty()) return;
  if (!line.ended) Problem("cut short", line.text);
  const char first = line.text.front();
  const bool may_start = first == 'k' || first == 't' || first == 'U';
  if (may_start && TakeSectionStart(line.text, line.ended)) return;
  if (section_ == Section::kUser) {
    TakeUserLine(line.text, line.ended);
  } else if (section_ == Section::kKernel) {
    TakeKernelLine(line.text, line.ended);
  } else if (!TakeHeaderLine(line.text) && incident_->printed.size() < kMaxPrinted) {
    incident_->printed.push_back(pool_->Intern(line.text));
  }
}

}  // namespace

// Stores once what logs have in common. A full store is replaced, and is freed with the last of its
// incidents, so that memory does not grow with the number of logs.
struct LogReader::Store {
  explicit Store(Symbols* symbols) : frames(&pool, symbols) {}

  TextPool pool;
  FrameTable frames;
};

LogReader::Store* LogReader::RoomyStore() {
  if (store_ == nullptr || store_->frames.size() > kMaxSharedFrames) {
    store_ = std::make_shared<Store>(symbols_);
  }
  return store_.get();
}

bool LogReader::Read(int fd, const std::string& file, Incident* incident, std::string* error,
                     const std::function<void(uint64_t)>& on_progress) {
  *incident = Incident();
  incident->file = SafeText(file);
  LineSource source(fd, keep_raw_ ? &incident->raw : nullptr);
  Store* const store = RoomyStore();
  incident->store = store_;
  Parser parser(&store->pool, &store->frames, incident);
  LineSource::Line line;
  while (source.Next(&line)) {
    parser.Take(line, source.line_number());
    if (on_progress && source.line_number() % kLinesPerProgress == 0) {
      on_progress(source.bytes_read());
    }
  }
  if (on_progress) on_progress(source.bytes_read());
  if (source.error() != 0) {
    *error = fmt::format("{}:{}: cannot read: {}", incident->file, source.line_number() + 1,
                         strerror(source.error()));
    return false;
  }
  if (!parser.has_tid_line()) {
    *error = fmt::format("{}:{}: no \"timeout tid:\" line up to here: not an incident log",
                         incident->file, source.line_number());
    return false;
  }
  Analyse(file, incident);
  return true;
}

}  // namespace report
