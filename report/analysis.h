// What a log's lines tell only together.
#pragma once

#include <string>

#include "incident.h"

namespace report {

// Completes an incident whose lines were read: times, the order of threads, groups, reason and
// signature. path: the log's, whose name tells the time.
void Analyse(const std::string& path, Incident* incident);

}  // namespace report
