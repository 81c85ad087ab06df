// The page of incidents: one HTML file that holds all it needs and makes no request.
#pragma once

#include <string>
#include <vector>

#include "incident.h"
#include "ranking.h"

namespace report {

// Replaces the file at path by the page of these incidents, as a whole or not at all. logs: the raw
// log of each, from PackLog. False, with the reason, when it cannot be written.
bool WriteHtml(const std::string& path, const std::vector<Incident>& incidents,
               const std::vector<std::string>& logs, const Ranking& ranking, std::string* error);

}  // namespace report
