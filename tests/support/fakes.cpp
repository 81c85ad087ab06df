#include "support/fakes.h"

#include <quorvel/quorvel.h>
#include <unistd.h>

#include "core/monitor_thread.h"

Fakes fakes;

bool UnlocksAreSeen() {
  bool seen = false;
  fakes.pthread_mutex_unlock = [&] { seen = true; };
  { RegistryLock lock; }
  fakes.pthread_mutex_unlock = nullptr;
  return seen;
}

void ArmWithoutMonitor() {
  fakes.pthread_create = [](void* (*)(void*)) { return 0; };
  quorvel_init();
  // What an earlier test left armed is counted as ended.
  QuorvelMonitor monitor;
  for (int32_t slot = 0; slot < kWheelSlots; ++slot) QuorvelCollectExpired(&monitor);
  RegistryLock lock;
  QuorvelBuildRegistry();
}

extern "C" {

time_t __real_time(time_t* out);
int __real_gettimeofday(struct timeval* now, void* zone);
int __real_usleep(useconds_t micros);
unsigned __real_sleep(unsigned seconds);
int __real_clock_gettime(clockid_t clock, struct timespec* now);
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* arg);
const char* __real_getprogname();
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex) __attribute__((weak));

time_t __wrap_time(time_t* out) {
  return fakes.time ? fakes.time() : __real_time(out);
}

int __wrap_gettimeofday(struct timeval* now, void* zone) {
  if (!fakes.gettimeofday) return __real_gettimeofday(now, zone);
  *now = fakes.gettimeofday();
  return 0;
}

int __wrap_usleep(useconds_t micros) {
  return fakes.usleep ? fakes.usleep(micros) : __real_usleep(micros);
}

unsigned __wrap_sleep(unsigned seconds) {
  return fakes.sleep ? fakes.sleep(seconds) : __real_sleep(seconds);
}

int __wrap_clock_gettime(clockid_t clock, struct timespec* now) {
  return fakes.clock_gettime ? fakes.clock_gettime(clock, now) : __real_clock_gettime(clock, now);
}

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* arg) {
  return fakes.pthread_create ? fakes.pthread_create(body)
                              : __real_pthread_create(thread, attributes, body, arg);
}

const char* __wrap_getprogname() {
  return fakes.getprogname ? fakes.getprogname() : __real_getprogname();
}

// Weak: a build with the thread sanitizer has the host layer's.
__attribute__((weak)) int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
  if (fakes.pthread_mutex_unlock) fakes.pthread_mutex_unlock();
  return __real_pthread_mutex_unlock(mutex);
}

}  // extern "C"
