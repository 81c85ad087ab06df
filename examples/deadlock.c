/*
 * A small service whose two threads hold each other's mutex.
 *
 *     deadlock        runs until it is ended; the incident comes after 2 seconds
 *
 * One thread saves the settings and tells the observers; the other adds an observer and reads the
 * settings. Each locks in the order of its own work, which are opposite orders.
 */
#define _GNU_SOURCE
#include <pthread.h>
#include <quorvel/quorvel.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#define WATCH_SECONDS 2
#define NOINLINE __attribute__((noinline))

static pthread_mutex_t g_settings = PTHREAD_MUTEX_INITIALIZER;
static pthread_mutex_t g_observers = PTHREAD_MUTEX_INITIALIZER;
static pthread_barrier_t g_both_locked; /* makes the unlucky moment certain */
static volatile int g_setting;
static volatile int g_observer_count;

static NOINLINE void notify_observers(void) {
  pthread_mutex_lock(&g_observers);
  g_setting = g_observer_count;
  pthread_mutex_unlock(&g_observers);
}

static NOINLINE void save_settings(void) {
  pthread_mutex_lock(&g_settings);
  pthread_barrier_wait(&g_both_locked);
  notify_observers();
  pthread_mutex_unlock(&g_settings);
}

static NOINLINE int read_settings(void) {
  pthread_mutex_lock(&g_settings);
  int value = g_setting;
  pthread_mutex_unlock(&g_settings);
  return value;
}

static NOINLINE void add_observer(void) {
  pthread_mutex_lock(&g_observers);
  pthread_barrier_wait(&g_both_locked);
  g_observer_count += read_settings();
  pthread_mutex_unlock(&g_observers);
}

static void* observer(void* unused) {
  add_observer();
  return unused;
}

static void* saver(void* unused) {
  uint32_t watch = __quorvel_start_ex("save-settings", WATCH_SECONDS, NULL, NULL,
                                      QUORVEL_FLAG_LOG | QUORVEL_FLAG_BACKTRACE);
  save_settings();
  quorvel_end(watch);
  return unused;
}

int main(void) {
  pthread_t threads[2];
  quorvel_init();
  pthread_barrier_init(&g_both_locked, NULL, 2);
  int error = pthread_create(&threads[0], NULL, observer, NULL);
  if (error == 0) error = pthread_create(&threads[1], NULL, saver, NULL);
  if (error != 0) {
    fprintf(stderr, "deadlock: cannot start a thread: %s\n", strerror(error));
    return 1;
  }
  for (;;) pause();
}
