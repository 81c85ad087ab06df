// What the storms share: how long they blow, what ends one that hangs, and the hostile threads.
#ifndef QUORVEL_TESTS_STRESS_STORM_H_
#define QUORVEL_TESTS_STRESS_STORM_H_

#include <pthread.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <vector>

#if defined(__SANITIZE_THREAD__)
constexpr bool kThreadSanitizer = true;
#else
constexpr bool kThreadSanitizer = false;
#endif
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitizer = true;
#else
constexpr bool kSanitizer = kThreadSanitizer;
#endif

// QUORVEL_STRESS_SECONDS is for both storms together.
inline unsigned StormSeconds() {
  const char* seconds = getenv("QUORVEL_STRESS_SECONDS");
  return static_cast<unsigned>(seconds != nullptr ? atoi(seconds) : 20) / 2;
}

// SIGALRM ends the process while one of these lives too long: a deadlock is a failure, not a wait.
struct ScopedDeadline {
  explicit ScopedDeadline(unsigned seconds) { alarm(seconds); }
  ~ScopedDeadline() { alarm(0); }
};

// A thread that is in the worst places when the unwinder comes, and watches that nothing happens to
// it. run goes on for as long as Next says.
struct Hostile;
struct HostileKind {
  const char* name;
  int count;
  void (*run)(Hostile& self);
  const char* shows;           // in every stack of it; null where there is no way up so far
  const char* skip = nullptr;  // why this build has none
};

struct Hostile {
  const HostileKind* kind;
  pthread_t thread = {};
  std::atomic<int> tid{0};
  std::atomic<unsigned> steps{0};

  // Counts a step, computes for a while and sees its errno kept, pauses. False: it is to end.
  bool Next();
};

extern std::atomic<int> g_broken_promises;  // told to stderr, too

// Starts threads of every kind, and waits until all are at work.
std::vector<Hostile*> StartHostileThreads();

// Ends them all. One that does not end in time ends the process, with its name.
void JoinHostileThreads(const std::vector<Hostile*>& threads);

// In a fork child of a hostile thread, which may use the library for itself. Its exit status.
int UseLibraryInChild();

#endif  // QUORVEL_TESTS_STRESS_STORM_H_
