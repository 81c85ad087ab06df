#include "json_output.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "kernel_line.h"

namespace report {
namespace {

using Json = nlohmann::ordered_json;
constexpr int kSchema = 1;

template <typename Value>
Json OrNull(const std::optional<Value>& value) {
  return value ? Json(*value) : Json(nullptr);
}

Json OrNull(std::string_view text) {
  return text.empty() ? Json(nullptr) : Json(text);
}

std::string Hex(uint64_t value) {
  return fmt::format("0x{:x}", value);
}

Json FrameJson(const Frame& frame) {
  return {{"pc", Hex(frame.pc)},
          {"offset", Hex(frame.offset)},
          {"map", frame.map},
          {"function", OrNull(frame.function)},
          {"function_offset", frame.function.empty() ? Json(nullptr) : Json(frame.function_offset)},
          {"source", OrNull(frame.source)},
          {"inlined", frame.inlined}};
}

Json ThreadJson(const Thread& thread) {
  Json user = Json::array();
  for (const Frame* frame : thread.user) user.push_back(FrameJson(*frame));
  return {{"tid", thread.tid},
          {"watched", thread.watched},
          {"kernel", thread.kernel},
          {"user", std::move(user)},
          {"failed", OrNull(thread.failed)}};
}

Json GroupJson(const Group& group) {
  return {{"tids", group.tids}, {"user", group.user}};
}

Json LabelsJson(const Labels& labels) {
  Json object = Json::object();
  for (const auto& [key, value] : labels) object[key] = value;
  return object;
}

std::string TextOf(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// Adds a list to an object, one element in memory at a time: a large log would need gigabytes.
template <typename List>
void WriteList(std::string_view key, const List& list,
               Json (*to_json)(const typename List::value_type&), std::ostream* out) {
  *out << ",\"" << key << "\":[";
  for (size_t i = 0; i < list.size(); ++i) *out << (i == 0 ? "" : ",") << TextOf(to_json(list[i]));
  *out << ']';
}

std::vector<std::string_view> LabelsOf(const std::vector<const Frame*>& user) {
  std::vector<std::string_view> labels;
  labels.reserve(user.size());
  for (const Frame* frame : user) labels.push_back(frame->label);
  return labels;
}

std::vector<std::string_view> FunctionsOf(const std::vector<std::string_view>& kernel) {
  std::vector<std::string_view> functions;
  functions.reserve(kernel.size());
  for (const std::string_view frame : kernel) functions.push_back(KernelFunction(frame));
  return functions;
}

}  // namespace

void WriteJson(const Incident& incident, const Labels& labels, std::ostream* out) {
  std::string head =
      TextOf({{"schema", kSchema},
              {"file", incident.file},
              {"written", OrNull(WrittenText(incident))},
              {"utc_offset_seconds", OrNull(incident.utc_offset_seconds)},
              {"started", OrNull(StartedText(incident))},
              {"armed_seconds", OrNull(incident.ArmedSeconds())},
              {"tid", incident.tid == 0 ? Json(nullptr) : Json(incident.tid)},
              {"watch", OrNull(incident.watch)},
              {"program", OrNull(incident.program)},
              {"fingerprint", OrNull(incident.fingerprint)},
              {"signature", incident.signature},
              {"signature_id", incident.signature_id},
              {"reason", {{"kind", incident.reason.kind}, {"text", incident.reason.text}}}});
  head.pop_back();  // its closing bracket
  *out << head;
  WriteList("threads", incident.threads, ThreadJson, out);
  WriteList("groups", incident.groups, GroupJson, out);
  Json problems = incident.problems;
  if (incident.problem_count > incident.problems.size()) {
    problems.push_back(fmt::format("{} more", incident.problem_count - incident.problems.size()));
  }
  std::string tail = TextOf({{"labels", LabelsJson(labels)}, {"problems", std::move(problems)}});
  tail.front() = ',';
  *out << tail << '\n';
}

void WriteRow(const Incident& incident, const Labels& labels, std::ostream* out) {
  static const Thread kNoThread;
  const Thread* const found = incident.Watched();
  const Thread& watched = found == nullptr ? kNoThread : *found;
  const auto failed = std::count_if(incident.threads.begin(), incident.threads.end(),
                                    [](const Thread& thread) { return thread.failed.has_value(); });
  Json keys = Json::array(), values = Json::array();
  for (const auto& [key, value] : labels) {
    keys.push_back(key);
    values.push_back(value);
  }
  *out << TextOf({{"written_ms", incident.written_ms.value_or(0)},
                  {"armed_seconds", incident.ArmedSeconds().value_or(0)},
                  {"file", incident.file},
                  {"program", incident.program.value_or("")},
                  {"watch", incident.watch.value_or("")},
                  {"fingerprint", incident.fingerprint.value_or("")},
                  {"signature", incident.signature},
                  {"signature_id", incident.signature_id},
                  {"reason_kind", incident.reason.kind},
                  {"reason_text", incident.reason.text},
                  {"watched_user", LabelsOf(watched.user)},
                  {"watched_kernel", FunctionsOf(watched.kernel)},
                  {"threads", incident.threads.size()},
                  {"threads_failed", failed},
                  {"problems", incident.problem_count},
                  {"label_keys", std::move(keys)},
                  {"label_values", std::move(values)}})
       << '\n';
}

}  // namespace report
