// The page.
#pragma once

#include <string>
#include <vector>

#include "incident.h"
#include "ranking.h"

namespace report {

// Writes one self-contained page of all incidents, in the ranking's order, to the file of that
// path. The file is replaced as a whole or not at all: false, with the reason. The incidents hold
// their logs' bytes (LogReader's keep_raw), which are no safe text.
bool WriteHtml(const std::string& path, const std::vector<Incident>& incidents,
               const Ranking& ranking, std::string* error);

}  // namespace report
