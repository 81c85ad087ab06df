// A mutex, its guard and a condition variable: the C library's, with default attributes and static
// initialisers, and with the attributes by which clang's -Wthread-safety checks that whatever a
// mutex guards is touched only while it is locked.
//
//     QuorvelMutex lock;
//     int count QUORVEL_GUARDED_BY(lock);
//     void Step() QUORVEL_REQUIRES(lock);  // the caller has locked it
//
// A mutex is not recursive and none of this may be used in a signal handler.
#ifndef QUORVEL_BASE_MUTEX_H_
#define QUORVEL_BASE_MUTEX_H_

#include <pthread.h>

#if defined(__clang__)
#define QUORVEL_THREAD_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define QUORVEL_THREAD_ATTRIBUTE(attribute)
#endif

#define QUORVEL_CAPABILITY(name) QUORVEL_THREAD_ATTRIBUTE(capability(name))
#define QUORVEL_SCOPED_CAPABILITY QUORVEL_THREAD_ATTRIBUTE(scoped_lockable)
#define QUORVEL_GUARDED_BY(mutex) QUORVEL_THREAD_ATTRIBUTE(guarded_by(mutex))
#define QUORVEL_REQUIRES(...) QUORVEL_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define QUORVEL_EXCLUDES(...) QUORVEL_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define QUORVEL_ACQUIRE(...) QUORVEL_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define QUORVEL_RELEASE(...) QUORVEL_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
// For a function that may touch guarded state unlocked; its comment says why.
#define QUORVEL_NO_THREAD_SAFETY_ANALYSIS QUORVEL_THREAD_ATTRIBUTE(no_thread_safety_analysis)

class QUORVEL_CAPABILITY("mutex") QuorvelMutex {
 public:
  constexpr QuorvelMutex() = default;
  QuorvelMutex(const QuorvelMutex&) = delete;
  QuorvelMutex& operator=(const QuorvelMutex&) = delete;

  void Lock() QUORVEL_ACQUIRE() { pthread_mutex_lock(&mutex_); }
  void Unlock() QUORVEL_RELEASE() { pthread_mutex_unlock(&mutex_); }

  // Unlocks it whoever holds it: in the child of a fork, where its holder does not exist.
  void ResetInChild() { mutex_ = PTHREAD_MUTEX_INITIALIZER; }

 private:
  friend class QuorvelCondition;
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

// Keeps a mutex locked for its scope.
class QUORVEL_SCOPED_CAPABILITY QuorvelMutexLock {
 public:
  explicit QuorvelMutexLock(QuorvelMutex* mutex) QUORVEL_ACQUIRE(mutex) : mutex_(mutex) {
    mutex_->Lock();
  }
  ~QuorvelMutexLock() QUORVEL_RELEASE() { mutex_->Unlock(); }
  QuorvelMutexLock(const QuorvelMutexLock&) = delete;
  QuorvelMutexLock& operator=(const QuorvelMutexLock&) = delete;

 private:
  QuorvelMutex* const mutex_;
};

class QuorvelCondition {
 public:
  constexpr QuorvelCondition() = default;
  QuorvelCondition(const QuorvelCondition&) = delete;
  QuorvelCondition& operator=(const QuorvelCondition&) = delete;

  // Unlocks the mutex for the wait and locks it again. May return without a signal.
  void Wait(QuorvelMutex* mutex) QUORVEL_REQUIRES(mutex) {
    pthread_cond_wait(&condition_, &mutex->mutex_);
  }
  void Signal() { pthread_cond_signal(&condition_); }

  // Forgets waiting threads: in the child of a fork, where they do not exist.
  void ResetInChild() { condition_ = PTHREAD_COND_INITIALIZER; }

 private:
  pthread_cond_t condition_ = PTHREAD_COND_INITIALIZER;
};

#endif  // QUORVEL_BASE_MUTEX_H_
