// sleep, as the device has it: nothing that is not meant for the thread cuts it short. Here a
// setuid of the C library signals every thread, and what is left of a sleep is rounded down to
// nothing: a host that changes its ids often would have the monitor's seconds pass in no time.
//
// The link sends the library's calls of it here (--wrap).

#include <errno.h>
#include <time.h>

extern "C" unsigned __wrap_sleep(unsigned seconds);

unsigned __wrap_sleep(unsigned seconds) {
  struct timespec end = {};
  clock_gettime(CLOCK_MONOTONIC, &end);
  end.tv_sec += seconds;
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
  }
  return 0;
}
