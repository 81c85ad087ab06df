// Makes chosen system calls of the code under test fail. The test program is linked so that the
// calls come here first; until a fault is armed they are the real ones.
#ifndef QUORVEL_TESTS_FAULTS_INTERPOSER_H_
#define QUORVEL_TESTS_FAULTS_INTERPOSER_H_

#include <limits.h>

constexpr int kDie = -1;  // in place of an errno: the process is killed as it makes the call

struct Fault {
  const char* call;    // name of the call; "*" for all
  const char* target;  // end of the path that is named or that lies behind the descriptor; after a
                       // '*' any part of it; "" for all
  int error;           // the errno, or kDie
  int skip = 0;        // matching calls that still succeed
  int times = INT_MAX;
};

// The fault is armed while this lives, for the calls of the constructing thread alone. A failing
// close still closes, as the kernel's does.
class ScopedFault {
 public:
  explicit ScopedFault(const Fault& fault);
  ~ScopedFault();
  ScopedFault(const ScopedFault&) = delete;
  ScopedFault& operator=(const ScopedFault&) = delete;

  int calls() const { return calls_; }  // matching calls so far
  bool Strikes(const char* call, const char* path, int fd);

 private:
  const Fault fault_;
  int calls_ = 0;
};

#endif  // QUORVEL_TESTS_FAULTS_INTERPOSER_H_
