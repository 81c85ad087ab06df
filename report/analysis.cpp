#include "analysis.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>

#include "grouping.h"
#include "log_time.h"
#include "reason.h"
#include "signature.h"

namespace report {
namespace {

constexpr int64_t kZoneStep = 15 * 60;            // every zone's offset is a multiple of it
constexpr int64_t kLargestOffset = 14 * 60 * 60;  // and none is larger
constexpr int64_t kSlack = 3 * 60;  // between a file's name and its header, on a busy machine

// The zone is what the header's local time differs from the name's by.
void FindZone(Incident* incident) {
  if (!incident->written_ms || !incident->written_local) return;
  const int64_t difference = *incident->written_local - *incident->written_ms / 1000;
  const int64_t steps = difference >= 0 ? (difference + kZoneStep / 2) / kZoneStep
                                        : -((-difference + kZoneStep / 2) / kZoneStep);
  const int64_t offset = steps * kZoneStep;
  if (std::abs(offset) > kLargestOffset || std::abs(difference - offset) > kSlack) {
    incident->problems.emplace_back("line 1: this time is none that the file's name could mean");
    ++incident->problem_count;
    return;
  }
  incident->utc_offset_seconds = offset;
}

void OrderThreads(Incident* incident) {
  for (Thread& thread : incident->threads) {
    thread.watched = incident->tid != 0 && thread.tid == incident->tid;
  }
  std::sort(incident->threads.begin(), incident->threads.end(),
            [](const Thread& a, const Thread& b) {
              return a.watched != b.watched ? a.watched : a.tid < b.tid;
            });
}

}  // namespace

void Analyse(const std::string& path, Incident* incident) {
  incident->written_ms = ParseFileTime(path);
  FindZone(incident);
  OrderThreads(incident);
  incident->groups = GroupThreads(incident->threads);
  incident->reason = FindReason(incident->Watched());
  SetSignature(incident);
}

}  // namespace report
