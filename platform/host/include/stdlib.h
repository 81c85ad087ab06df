// Adds to the machine's <stdlib.h> what the device's has.
#ifndef QUORVEL_HOST_STDLIB_H_
#define QUORVEL_HOST_STDLIB_H_

#include_next <stdlib.h>

#ifdef __cplusplus
extern "C" {
#endif

// The last component of the path by which the program was started.
const char* getprogname(void);

#ifdef __cplusplus
}
#endif

#endif  // QUORVEL_HOST_STDLIB_H_
