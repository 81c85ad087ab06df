#include "ranking.h"

#include <algorithm>

#include "signature.h"

namespace report {

void RankingBuilder::Add(Incident incident) {
  RankedSignature& entry = by_id_[incident.signature_id];
  if (entry.count++ == 0) {
    entry.signature = incident.signature;
    entry.signature_id = incident.signature_id;
    entry.watch = incident.watch.value_or("");
    for (const std::string_view name : SignatureFunctions(incident))
      entry.frames.emplace_back(name);
  }
  entry.programs.emplace(incident.program.value_or("-"));
  ++entry.reasons[incident.reason.text];
  const std::optional<int64_t> written = incident.written_ms;
  if (written && (!entry.first_ms || *written < *entry.first_ms)) entry.first_ms = written;
  if (entry.count > 1 && (!written || (entry.last_ms && *written < *entry.last_ms))) return;
  if (written) entry.last_ms = written;
  entry.newest = std::move(incident);
}

Ranking RankingBuilder::Finish() {
  Ranking ranking;
  for (auto& [id, entry] : by_id_) ranking.push_back(std::move(entry));
  by_id_.clear();
  std::sort(ranking.begin(), ranking.end(), [](const RankedSignature& a, const RankedSignature& b) {
    if (a.count != b.count) return a.count > b.count;
    if (a.last_ms != b.last_ms) return a.last_ms.value_or(0) > b.last_ms.value_or(0);
    return a.signature_id < b.signature_id;
  });
  return ranking;
}

}  // namespace report
