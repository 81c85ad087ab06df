#include "html_data.h"

#include <fmt/format.h>

#include <map>
#include <nlohmann/json.hpp>
#include <string_view>
#include <unordered_map>

#include "kernel_line.h"
#include "overview.h"
#include "reason.h"
#include "safe_text.h"

namespace report {
namespace {

using nlohmann::json;

constexpr int kNone = -1;  // the index of what the log does not say

// How the page shows a frame; the values are indices of FRAME_CLASSES in page/data.js.
enum class FrameClass { kOwn, kLibrary, kWaiting };

FrameClass ClassOf(const Frame& frame) {
  if (frame.role == Role::kWaiting) return FrameClass::kWaiting;
  return frame.role == Role::kOwn && !frame.system ? FrameClass::kOwn : FrameClass::kLibrary;
}

// What a thread is to the watched one; the values are indices of THREAD_PLACES in page/data.js.
enum class Place { kOther, kSameWait, kSameFunction, kIdle };

using Places = std::unordered_map<const Thread*, Place>;

void SetPlaces(const std::vector<ThreadGroup>& groups, Places* places) {
  for (const ThreadGroup& group : groups) {
    const Place place = group.idle                                  ? Place::kIdle
                        : group.relation == Relation::kSameWait     ? Place::kSameWait
                        : group.relation == Relation::kSameFunction ? Place::kSameFunction
                                                                    : Place::kOther;
    for (const Thread* thread : group.threads) (*places)[thread] = place;
  }
}

std::string Hex(uint64_t value) {
  return fmt::format("{:x}", value);
}

template <typename T>
json OrNull(const std::optional<T>& value) {
  return value ? json(*value) : json(nullptr);
}

class DataBuilder {
 public:
  void Add(const Incident& incident);
  void Add(const RankedSignature& signature);
  json Take();  // what was added; to be called once, last

 private:
  int String(std::string_view text);
  int OptionalString(const std::optional<std::string_view>& text) {
    return text ? String(*text) : kNone;
  }
  int NonEmptyString(std::string_view text) { return text.empty() ? kNone : String(text); }
  int FrameIndex(const Frame* frame);
  int KernelFrameIndex(std::string_view text);
  int StackIndex(const Thread& thread);

  std::unordered_map<std::string, int> string_index_;
  std::unordered_map<const Frame*, int> frame_index_;
  std::unordered_map<int, int> kernel_frame_index_;  // by the text's string index
  std::map<std::vector<int>, int> stack_index_;      // by the frames' indices
  json strings_ = json::array();
  json frames_ = json::array();
  json kernel_frames_ = json::array();
  json stacks_ = json::array();
  json incidents_ = json::array();
  json ranking_ = json::array();
};

int DataBuilder::String(std::string_view text) {
  const auto [entry, is_new] =
      string_index_.try_emplace(std::string(text), static_cast<int>(strings_.size()));
  if (is_new) strings_.push_back(text);
  return entry->second;
}

int DataBuilder::FrameIndex(const Frame* frame) {
  const auto [entry, is_new] = frame_index_.try_emplace(frame, static_cast<int>(frames_.size()));
  if (is_new) {
    json inlined = json::array();
    for (std::string_view function : frame->inlined) inlined.push_back(String(function));
    frames_.push_back({String(frame->label), NonEmptyString(frame->function), String(frame->map),
                       Hex(frame->pc), Hex(frame->offset), std::to_string(frame->function_offset),
                       NonEmptyString(frame->source), static_cast<int>(ClassOf(*frame)),
                       std::move(inlined)});
  }
  return entry->second;
}

int DataBuilder::KernelFrameIndex(std::string_view text) {
  const int string = String(text);
  const auto [entry, is_new] =
      kernel_frame_index_.try_emplace(string, static_cast<int>(kernel_frames_.size()));
  if (is_new) kernel_frames_.push_back({string, String(KernelFunction(text))});
  return entry->second;
}

int DataBuilder::StackIndex(const Thread& thread) {
  std::vector<int> user;
  std::vector<int> kernel;
  for (const Frame* frame : thread.user) user.push_back(FrameIndex(frame));
  for (std::string_view frame : thread.kernel) kernel.push_back(KernelFrameIndex(frame));
  const int failed = OptionalString(thread.failed);

  std::vector<int> key = user;
  key.push_back(kNone);
  key.insert(key.end(), kernel.begin(), kernel.end());
  key.insert(key.end(), {failed, thread.has_user, thread.state});
  const auto [entry, is_new] =
      stack_index_.try_emplace(std::move(key), static_cast<int>(stacks_.size()));
  if (is_new) {
    const Reason reason = FindReason(&thread);
    stacks_.push_back({user, kernel, failed, String(reason.kind), String(reason.text),
                       thread.has_user, thread.state == '\0' ? "" : std::string(1, thread.state)});
  }
  return entry->second;
}

void DataBuilder::Add(const Incident& incident) {
  const Overview overview = MakeOverview(incident);
  Places places;
  for (const auto* groups : {&overview.related, &overview.idle}) SetPlaces(*groups, &places);
  json threads = json::array();
  for (const Thread& thread : incident.threads) {
    threads.push_back(thread.tid);
    threads.push_back(StackIndex(thread));
    threads.push_back(static_cast<int>(places[&thread]));
  }
  json printed = json::array();
  for (std::string_view line : incident.printed) printed.push_back(String(line));
  json problems = json::array();
  for (const std::string& problem : incident.problems) problems.push_back(String(problem));
  incidents_.push_back({
      {"file", String(SafeText(incident.file))},
      {"written", NonEmptyString(WrittenText(incident))},
      {"started", NonEmptyString(StartedText(incident))},
      {"utcOffset", OrNull(incident.utc_offset_seconds)},
      {"armedSeconds", OrNull(incident.ArmedSeconds())},
      {"tid", incident.tid},
      {"watch", OptionalString(incident.watch)},
      {"program", OptionalString(incident.program)},
      {"fingerprint", OptionalString(incident.fingerprint)},
      {"signatureId", String(incident.signature_id)},
      {"kind", String(incident.reason.kind)},
      {"reason", String(incident.reason.text)},
      {"hint", NonEmptyString(overview.hint)},
      {"threads", std::move(threads)},
      {"printed", std::move(printed)},
      {"problems", std::move(problems)},
      {"problemCount", incident.problem_count},
  });
}

void DataBuilder::Add(const RankedSignature& signature) {
  json frames = json::array();
  for (const std::string& frame : signature.frames) frames.push_back(String(frame));
  ranking_.push_back({String(signature.signature_id), std::move(frames)});
}

json DataBuilder::Take() {
  return {{"strings", std::move(strings_)},
          {"frames", std::move(frames_)},
          {"kernelFrames", std::move(kernel_frames_)},
          {"stacks", std::move(stacks_)},
          {"ranking", std::move(ranking_)},
          {"incidents", std::move(incidents_)}};
}

}  // namespace

std::string HtmlData(const std::vector<Incident>& incidents, const Ranking& ranking) {
  DataBuilder builder;
  for (const RankedSignature& signature : ranking) builder.Add(signature);
  for (const Incident& incident : incidents) builder.Add(incident);
  const std::string text = builder.Take().dump(-1, ' ', true, json::error_handler_t::replace);
  std::string escaped;
  escaped.reserve(text.size());
  for (char c : text) {
    if (c == '<') {
      escaped += "\\u003c";
    } else {
      escaped += c;
    }
  }
  return escaped;
}

}  // namespace report
