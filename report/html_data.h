// The incidents as the page reads them: JSON that holds every string once, equal frames and stacks
// once, and all else by index. page/data.js is its reader.
#pragma once

#include <string>
#include <vector>

#include "incident.h"
#include "ranking.h"

namespace report {

// The JSON of the incidents. It holds only ASCII characters and no "<": no text in it can end the
// script element around it.
std::string HtmlData(const std::vector<Incident>& incidents, const Ranking& ranking);

}  // namespace report
