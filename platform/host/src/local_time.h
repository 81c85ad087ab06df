// Local time without the C library's lock on the time zone, which a stopped thread may hold, or one
// that does not exist in the child of a fork.
#ifndef QUORVEL_HOST_LOCAL_TIME_H_
#define QUORVEL_HOST_LOCAL_TIME_H_

#include <time.h>

// The local time at a wall-clock second of the years 1 to 9999, with the offset from UTC that held
// when the library was loaded. The day of the year and the name of the zone are not set. Any thread
// and any signal handler; locks nothing.
struct tm LocalTimeAt(time_t seconds);

#endif  // QUORVEL_HOST_LOCAL_TIME_H_
