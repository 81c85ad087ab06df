// Incidents as JSON, one object a line.
#pragma once

#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "incident.h"

namespace report {

using Labels = std::vector<std::pair<std::string, std::string>>;

// Writes all facts of an incident and a new line.
void WriteJson(const Incident& incident, const Labels& labels, std::ostream* out);

// Writes the facts that column stores keep, flat, and a new line.
void WriteRow(const Incident& incident, const Labels& labels, std::ostream* out);

}  // namespace report
