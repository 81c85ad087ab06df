// What makes two incidents the same hang.
#pragma once

#include <string_view>
#include <vector>

#include "incident.h"

namespace report {

// Sets signature and signature_id: the program, the watch's name, the kind of wait, and the first
// telling functions of the watched thread's user stack (of its kernel stack where there is none).
// Neither depends on addresses, offsets, ids, times or frames further out.
void SetSignature(Incident* incident);

// The telling functions in an incident's signature, innermost first.
std::vector<std::string_view> SignatureFunctions(const Incident& incident);

}  // namespace report
