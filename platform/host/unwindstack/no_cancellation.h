// Defers cancellation of the calling thread for a scope: files are read here under locks, by calls
// that are cancellation points on this machine and not on a device.
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
