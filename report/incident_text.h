// An incident as text for a terminal.
#pragma once

#include <string>

#include "incident.h"
#include "painter.h"
#include "stack_text.h"

namespace report {

// Everything, the answers first: what hung, since when, why; the watched thread's stacks side by
// side; who else waits there; all other threads.
std::string FullText(const Incident& incident, const TextLayout& layout, const Painter& painter);

// What hung, since when, why, and the first frames, in a few lines.
std::string ShortText(const Incident& incident, const TextLayout& layout, const Painter& painter);

}  // namespace report
