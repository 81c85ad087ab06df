// Signatures by how often they came.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "incident.h"

namespace report {

// All incidents of one signature.
struct RankedSignature {
  std::string signature;
  std::string signature_id;
  uint64_t count = 0;
  std::string watch;  // empty where the watch has no name
  std::set<std::string> programs;
  std::map<std::string, uint64_t> reasons;   // texts, each with how often it came
  std::vector<std::string> frames;           // the functions of the signature
  std::optional<int64_t> first_ms, last_ms;  // since the epoch; none where no name told
  Incident newest;                           // the incident of last_ms
};

using Ranking = std::vector<RankedSignature>;  // most frequent first, then the latest

class RankingBuilder {
 public:
  void Add(Incident incident);

  // The ranking of all that was added; the builder is empty afterwards.
  Ranking Finish();

 private:
  std::unordered_map<std::string, RankedSignature> by_id_;
};

}  // namespace report
