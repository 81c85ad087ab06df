#include "support/fakes.h"

#include <pthread.h>
#include <unistd.h>

Fakes fakes;

// FAKE(result, call, parameters, arguments of the fake, arguments of the real call)
#define FAKE(type, call, parameters, fake_arguments, arguments)              \
  type __real_##call parameters;                                             \
  type __wrap_##call parameters {                                            \
    return fakes.call ? fakes.call fake_arguments : __real_##call arguments; \
  }

extern "C" {

FAKE(time_t, time, (time_t * out), (), (out))
FAKE(int, usleep, (useconds_t micros), (micros), (micros))
FAKE(unsigned, sleep, (unsigned seconds), (seconds), (seconds))
FAKE(int, gettimeofday, (timeval * now, void* zone), (now), (now, zone))
FAKE(int, clock_gettime, (clockid_t clock, timespec* now), (clock, now), (clock, now))
FAKE(int, pthread_create,
     (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*), void* arg),
     (body), (thread, attributes, body, arg))
FAKE(const char*, getprogname, (), (), ())
FAKE(int, DravikGetStack, (int tid, char* buffer), (tid, buffer), (tid, buffer))

}  // extern "C"

std::string RealExecutablePath() __asm__("__real__ZN7android4base17GetExecutablePathB5cxx11Ev");
std::string WrapExecutablePath() __asm__("__wrap__ZN7android4base17GetExecutablePathB5cxx11Ev");
std::string WrapExecutablePath() {
  return fakes.executable_path ? fakes.executable_path() : RealExecutablePath();
}

void RealWakeMonitor() __asm__("__real__Z18QuorvelWakeMonitorv");
void WrapWakeMonitor() __asm__("__wrap__Z18QuorvelWakeMonitorv");
void WrapWakeMonitor() {
  if (fakes.wake_monitor) fakes.wake_monitor();
  RealWakeMonitor();
}
