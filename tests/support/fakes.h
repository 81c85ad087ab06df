// Calls of the C library that the library under test makes, with a test's own behaviour in their
// place. The test program is linked so that they come here; unset, they are the real ones.
#ifndef QUORVEL_TESTS_SUPPORT_FAKES_H_
#define QUORVEL_TESTS_SUPPORT_FAKES_H_

#include <sys/time.h>
#include <time.h>

#include <functional>
#include <string>

struct Fakes {
  std::function<time_t()> time;
  std::function<int(timeval*)> gettimeofday;
  std::function<int(useconds_t)> usleep;
  std::function<unsigned(unsigned)> sleep;
  std::function<int(clockid_t, timespec*)> clock_gettime;
  // Given the body of the new thread; its result is pthread_create's.
  std::function<int(void* (*body)(void*))> pthread_create;
  std::function<const char*()> getprogname;
  std::function<std::string()> executable_path;
  std::function<int(int tid, char* buffer)> DravikGetStack;
  std::function<void()> wake_monitor;  // before the library's own
};

// Set only by the test, while no other thread is in the library; restored at its end.
extern Fakes fakes;

#endif  // QUORVEL_TESTS_SUPPORT_FAKES_H_
