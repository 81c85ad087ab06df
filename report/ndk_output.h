// Logs as the device kit's stack symbolisers read them.
#pragma once

#include <ostream>

#include "incident.h"

namespace report {

// Writes for each thread with a user stack a blank line, a banner, and its frames.
void WriteNdk(const Incident& incident, std::ostream* out);

}  // namespace report
