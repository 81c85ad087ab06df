// Why a thread does not go on.
#pragma once

#include <vector>

#include "incident.h"
#include "reason_table.h"

namespace report {

// The machinery of waiting at the top of a user stack.
struct UserWait {
  const Wait* wait = nullptr;  // null where the stack does not begin with a function that waits
  std::string_view function;   // its name, as a program calls it: "pthread_mutex_lock"
  size_t frames = 0;           // how many frames the machinery has
};

UserWait WaitOnTopOf(const std::vector<const Frame*>& user);

// The first frame of the program's own code; null when the stack has none.
const Frame* FindOwnFrame(const std::vector<const Frame*>& user);

// The reason as the thread's kernel stack, its state and its user stack tell it; "unknown" rather
// than a guess. null: the log has nothing of the thread.
Reason FindReason(const Thread* thread);

}  // namespace report
