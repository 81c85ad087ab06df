#include "grouping.h"

#include <algorithm>
#include <map>

namespace report {
namespace {

std::vector<std::string_view> FunctionsOf(const Thread& thread) {
  std::vector<std::string_view> functions;
  functions.reserve(thread.user.size());
  for (const Frame* frame : thread.user) functions.push_back(frame->label);
  return functions;
}

}  // namespace

std::vector<Group> GroupThreads(const std::vector<Thread>& threads) {
  std::map<std::vector<std::string_view>, std::vector<int>> tids_by_functions;
  for (const Thread& thread : threads) tids_by_functions[FunctionsOf(thread)].push_back(thread.tid);
  std::vector<Group> groups;
  groups.reserve(tids_by_functions.size());
  for (auto& [functions, tids] : tids_by_functions) {
    std::sort(tids.begin(), tids.end());
    groups.push_back({std::move(tids), functions});
  }
  std::sort(groups.begin(), groups.end(), [](const Group& a, const Group& b) {
    return a.tids.size() != b.tids.size() ? a.tids.size() > b.tids.size() : a.tids < b.tids;
  });
  return groups;
}

}  // namespace report
