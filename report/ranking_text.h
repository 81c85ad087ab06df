// The ranking as text for a terminal.
#pragma once

#include <string>

#include "incident_text.h"
#include "painter.h"
#include "ranking.h"

namespace report {

// One line for each of the first so many signatures, then the newest incident of each of the first
// ten in short.
std::string RankingText(const Ranking& ranking, size_t top, const TextLayout& layout,
                        const Painter& painter);

}  // namespace report
