// Local time without the C library's lock on the time zone, which a parked thread, or one that a
// fork left behind, may hold.
#ifndef QUORVEL_HOST_LOCAL_TIME_H_
#define QUORVEL_HOST_LOCAL_TIME_H_

#include <time.h>

// With the offset from UTC that held as the library was loaded; of the years 1 to 9999. The day of
// the year and the name of the zone are left out. Any context; takes no lock.
struct tm LocalTimeAt(time_t seconds);

#endif  // QUORVEL_HOST_LOCAL_TIME_H_
