// Tells the program's own code from the machinery around it.
#pragma once

#include <string>
#include <string_view>

#include "incident.h"

namespace report {

// A map's name without its directory and " (deleted)"; "anonymous" and "unknown" for those.
std::string MapName(std::string_view map);

// True for the C and C++ libraries, the loader and others that every system has.
bool IsSystemMap(std::string_view map);

// The role of a function by its demangled and its plain name.
Role RoleOf(std::string_view function, std::string_view plain);

// True for a function whose plain name tells where the program was.
bool IsTelling(Role role, std::string_view plain);

}  // namespace report
