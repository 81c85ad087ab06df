#include "overview.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <tuple>

#include "reason.h"

namespace report {
namespace {

bool IsOneOf(std::string_view kind, std::initializer_list<std::string_view> kinds) {
  return std::find(kinds.begin(), kinds.end(), kind) != kinds.end();
}

bool IsLock(std::string_view kind) {
  return IsOneOf(kind, {"mutex", "file-lock"});
}

// What threads do that have nothing to do.
bool IsIdle(std::string_view kind) {
  return IsOneOf(kind, {"condition", "poll", "sleep", "signal", "binder"});
}

bool StandsIn(const Thread& thread, std::string_view function) {
  return std::any_of(thread.user.begin(), thread.user.end(), [function](const Frame* frame) {
    return !frame->function.empty() && frame->function == function;
  });
}

class Grouping {
 public:
  explicit Grouping(const Incident& incident)
      : watched_(incident.Watched()), watched_reason_(incident.reason) {
    const Frame* const own = watched_ == nullptr ? nullptr : FindOwnFrame(watched_->user);
    // main, where everything begins, and the function of a thread that runs relate no others.
    if (own != nullptr && own->plain != "main" && watched_reason_.kind != "running") {
      function_ = own->function;
    }
  }

  void Add(const Thread& thread) {
    const Reason reason = FindReason(&thread);
    std::vector<std::string_view> functions;
    for (const Frame* frame : thread.user) functions.push_back(frame->label);
    const Relation relation = RelationOf(thread, reason);
    ThreadGroup& group = groups_[{functions, reason.kind, relation}];
    if (group.threads.empty()) {
      group.reason = reason;
      group.relation = relation;
      group.idle = relation == Relation::kNone && IsIdle(reason.kind);
    }
    group.threads.push_back(&thread);
  }

  // All groups, rare ones first.
  std::vector<ThreadGroup> Finish() {
    std::vector<ThreadGroup> groups;
    for (auto& [key, group] : groups_) groups.push_back(std::move(group));
    std::sort(groups.begin(), groups.end(), [](const ThreadGroup& a, const ThreadGroup& b) {
      if (a.threads.size() != b.threads.size()) return a.threads.size() < b.threads.size();
      return a.threads.front()->tid < b.threads.front()->tid;
    });
    return groups;
  }

 private:
  Relation RelationOf(const Thread& thread, const Reason& reason) const {
    if (IsLock(watched_reason_.kind) && reason.kind == watched_reason_.kind) {
      return Relation::kSameWait;
    }
    if (!function_.empty() && StandsIn(thread, function_)) return Relation::kSameFunction;
    return Relation::kNone;
  }

  using Key = std::tuple<std::vector<std::string_view>, std::string_view, Relation>;
  const Thread* watched_;
  const Reason& watched_reason_;
  std::string_view function_;  // in which the watched thread waits
  std::map<Key, ThreadGroup> groups_;
};

std::string HintOf(const Incident& incident, const Overview& overview) {
  const std::string_view kind = incident.reason.kind;
  size_t waiting = 0;
  for (const ThreadGroup& group : overview.related) {
    if (group.relation == Relation::kSameWait) waiting += group.threads.size();
  }
  if (kind == "mutex" && waiting > 0) {
    return fmt::format("{} threads wait for mutexes: a deadlock, if they own each other's.",
                       waiting + 1);
  }
  if (kind == "mutex") {
    return "Nobody else waits for a mutex: its owner runs or waits for another thing.";
  }
  if (kind == "condition" && !overview.others.empty()) {
    return "Another thread is to signal it: look first at those that are not idle.";
  }
  return "";
}

}  // namespace

Overview MakeOverview(const Incident& incident) {
  Overview overview;
  Grouping grouping(incident);
  for (const Thread& thread : incident.threads) {
    if (thread.has_kernel && !thread.has_user && !thread.failed) overview.cut.push_back(&thread);
    if (!thread.watched) grouping.Add(thread);
  }
  for (ThreadGroup& group : grouping.Finish()) {
    std::vector<ThreadGroup>& list = group.relation != Relation::kNone ? overview.related
                                     : group.idle                      ? overview.idle
                                                                       : overview.others;
    list.push_back(std::move(group));
  }
  overview.hint = HintOf(incident, overview);
  return overview;
}

}  // namespace report
