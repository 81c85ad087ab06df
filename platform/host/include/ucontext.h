// Adds to the machine's <ucontext.h> the device's name of the structure.
#ifndef QUORVEL_HOST_UCONTEXT_H_
#define QUORVEL_HOST_UCONTEXT_H_

#include_next <ucontext.h>

#ifdef __cplusplus
using ucontext = ucontext_t;
#endif

#endif  // QUORVEL_HOST_UCONTEXT_H_
