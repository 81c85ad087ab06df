// Keeps the calling thread from being cancelled for a scope: files are read under locks here, and
// the C library's calls for that are points of cancellation, which a device does not have.
#ifndef QUORVEL_HOST_UNWINDSTACK_NO_CANCELLATION_H_
#define QUORVEL_HOST_UNWINDSTACK_NO_CANCELLATION_H_

#include <pthread.h>

namespace unwindstack {

class NoCancellation {
 public:
  NoCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old_state_); }
  ~NoCancellation() { pthread_setcancelstate(old_state_, nullptr); }
  NoCancellation(const NoCancellation&) = delete;
  NoCancellation& operator=(const NoCancellation&) = delete;

 private:
  int old_state_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace unwindstack

#endif  // QUORVEL_HOST_UNWINDSTACK_NO_CANCELLATION_H_
