// What makes two incidents the same hang.
#pragma once

#include "incident.h"

namespace report {

// Sets signature and signature_id: the program, the watch's name, the kind of wait, and the first
// telling functions of the watched thread's user stack (of its kernel stack where there is none).
// Neither depends on addresses, offsets, ids, times or frames further out.
void SetSignature(Incident* incident);

}  // namespace report
