// For builds with the thread sanitizer alone: tells it of the library's locks.
//
// While a thread is inside a blocking call the sanitizer does not record its calls, and the
// unwinder's handler does interrupt threads there: the sanitizer would see what the handler reads
// but not the locks that it holds. The linker redirects the library's calls of these names
// (--wrap).

#include <pthread.h>

extern "C" {

void __tsan_acquire(void* address);
void __tsan_release(void* address);

int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex);

}  // extern "C"

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  const int result = __real_pthread_mutex_lock(mutex);
  if (result == 0) __tsan_acquire(mutex);
  return result;
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
  __tsan_release(mutex);
  return __real_pthread_mutex_unlock(mutex);
}
