#include "unwind/unwindstack_wrapper_thread.h"

#include <android/log.h>
#include <errno.h>
#include <string.h>
#include <time.h>

#include <new>

#include "base/bounds_checked.h"
#include "unwind/unwind_log.h"

namespace {

constexpr time_t kWaitSeconds = 5;

struct timespec WaitDeadline() {
  struct timespec deadline = {};
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += kWaitSeconds;
  return deadline;
}

}  // namespace

unwindstack_wrapper_thread* unwindstack_wrapper_thread::list_ = nullptr;
pthread_mutex_t unwindstack_wrapper_thread::list_mutex_ = PTHREAD_MUTEX_INITIALIZER;

unwindstack_wrapper_thread::unwindstack_wrapper_thread(int pid, int tid)
    : pid_(pid),
      tid_(tid),
      ref_count_(1),
      entry_mutex_(PTHREAD_MUTEX_INITIALIZER),
      wait_mutex_(PTHREAD_MUTEX_INITIALIZER),
      wait_value_(kRendezvousIdle),
      next_(list_),
      prev_(nullptr),
      ucontext_() {
  pthread_condattr_t attributes;
  pthread_condattr_init(&attributes);
  pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  pthread_cond_init(&wait_cond_, &attributes);
  pthread_condattr_destroy(&attributes);
  if (list_ != nullptr) list_->prev_ = this;
  list_ = this;
}

unwindstack_wrapper_thread::~unwindstack_wrapper_thread() {
  if (list_ == this) list_ = next_;
  if (next_ != nullptr) next_->prev_ = prev_;
  if (prev_ != nullptr) prev_->next_ = next_;
  next_ = nullptr;
  prev_ = nullptr;
  pthread_cond_destroy(&wait_cond_);
}

unwindstack_wrapper_thread* unwindstack_wrapper_thread::get(int pid, int tid, bool create) {
  pthread_mutex_lock(&list_mutex_);
  unwindstack_wrapper_thread* entry = list_;
  while (entry != nullptr && (entry->pid_ != pid || entry->tid_ != tid)) entry = entry->next_;
  if (entry != nullptr) {
    ++entry->ref_count_;
  } else if (create) {
    entry = new (std::nothrow) unwindstack_wrapper_thread(pid, tid);
  }
  pthread_mutex_unlock(&list_mutex_);
  return entry;
}

void unwindstack_wrapper_thread::remove(unwindstack_wrapper_thread* entry) {
  pthread_mutex_unlock(&entry->entry_mutex_);
  pthread_mutex_lock(&list_mutex_);
  if (--entry->ref_count_ == 0) delete entry;
  pthread_mutex_unlock(&list_mutex_);
}

bool unwindstack_wrapper_thread::wait(int value) {
  const struct timespec deadline = WaitDeadline();
  pthread_mutex_lock(&wait_mutex_);
  bool reached = wait_value_ == value;
  while (!reached) {
    const int error = pthread_cond_timedwait(&wait_cond_, &wait_mutex_, &deadline);
    if (error != 0) {
      __android_log_print(ANDROID_LOG_ERROR, kUnwindLogTag,
                          "pthread_cond_timedwait for value %d failed: %s\n", value,
                          strerror(error));
      break;
    }
    reached = wait_value_ == value;
  }
  pthread_mutex_unlock(&wait_mutex_);
  return reached;
}

void unwindstack_wrapper_thread::wake() {
  pthread_mutex_lock(&wait_mutex_);
  ++wait_value_;
  pthread_mutex_unlock(&wait_mutex_);
  pthread_cond_signal(&wait_cond_);
}

#if defined(__aarch64__)
static_assert(sizeof(mcontext_t) == 4384, "with the reserved area after the general registers");
#endif

void unwindstack_wrapper_thread::copy_context(void* context) {
  const ucontext_t* from = static_cast<const ucontext_t*>(context);
  const int error =
      memcpy_s(&ucontext_.uc_mcontext, sizeof(mcontext_t), &from->uc_mcontext, sizeof(mcontext_t));
  if (error != 0) {
    __android_log_print(ANDROID_LOG_ERROR, kUnwindLogTag,
                        "memcpy_s the mcontext err, errno is %d, size is %zu\n", error,
                        sizeof(mcontext_t));
  }
}
