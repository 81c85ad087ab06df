// sleep, for the monitor's ticks. The library blocks every signal there but those that the C
// library keeps for itself. On a device none of these interrupts a sleep. Here a setuid of the C
// library signals every thread, and its sleep then returns 0 for the rest of a second: a host that
// changes its ids often would have the monitor's seconds pass in no time. So this sleep lasts to
// its end, whatever interrupts it.
//
// The link sends the library's calls of sleep here (--wrap).

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
