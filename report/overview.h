// Sorts an incident's threads by how much they tell about the hang.
#pragma once

#include <string>
#include <vector>

#include "incident.h"

namespace report {

// What a thread has in common with the watched one.
enum class Relation {
  kNone,
  kSameWait,      // it waits for the same kind of lock
  kSameFunction,  // it is in the function in which the watched thread waits
};

// Threads with the same user functions, the same reason and the same relation.
struct ThreadGroup {
  std::vector<const Thread*> threads;  // by ascending id
  Reason reason;
  Relation relation = Relation::kNone;
  bool idle = false;  // it waits for work, as a pool's threads do
};

struct Overview {
  std::vector<ThreadGroup> related;  // rare ones first
  std::vector<ThreadGroup> others;   // rare ones first
  std::vector<ThreadGroup> idle;     // rare ones first
  std::vector<const Thread*> cut;    // with a kernel section and no user section
  std::string hint;                  // what the waits of all threads together suggest; may be empty
};

// Holds pointers into the incident, which must stay where it is.
Overview MakeOverview(const Incident& incident);

}  // namespace report
