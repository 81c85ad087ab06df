/*
 * A small service that really hangs, for the demo.
 *
 *     hang_service hold FILE              locks FILE and keeps it locked until it is ended
 *     hang_service serve FILE             its worker waits for that lock, under a 2-second watch
 *     hang_service serve FILE --recovery  the same; the watch may end the process
 *
 * Beside the worker run a thread that spins, one that sleeps, and two that hold each other's mutex:
 * all of them are in the incident. The service runs until it is ended.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <quorvel/quorvel.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <unistd.h>

#define WATCH_SECONDS 2
#define NOINLINE __attribute__((noinline))

static uint32_t g_watch_flags = QUORVEL_FLAG_LOG | QUORVEL_FLAG_BACKTRACE | QUORVEL_FLAG_SYSTRACE;
static pthread_mutex_t g_account_a = PTHREAD_MUTEX_INITIALIZER;
static pthread_mutex_t g_account_b = PTHREAD_MUTEX_INITIALIZER;
static pthread_barrier_t g_both_locked;
static volatile unsigned long g_polls;

static void on_hang(void* arg) {
  dprintf(STDOUT_FILENO, "callback: the worker hangs in \"%s\"\n", (const char*)arg);
}

static NOINLINE int lock_configuration(const char* path) {
  int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd == -1) {
    dprintf(STDERR_FILENO, "hang_service: cannot open %s: %s\n", path, strerror(errno));
    return -1;
  }
  if (flock(fd, LOCK_EX) == -1) {
    dprintf(STDERR_FILENO, "hang_service: cannot lock %s: %s\n", path, strerror(errno));
    close(fd);
    return -1;
  }
  return fd;
}

static NOINLINE int reload_configuration(const char* path) {
  static const char name[] = "reload-configuration";
  uint32_t watch =
      __quorvel_start_ex(name, WATCH_SECONDS, on_hang, (void*)(uintptr_t)name, g_watch_flags);
  int fd = lock_configuration(path);
  quorvel_end(watch);
  if (fd == -1) return -1;
  close(fd);
  return 0;
}

static void* worker(void* path) {
  int result = reload_configuration(path);
  dprintf(STDOUT_FILENO, "worker: done, %d\n", result);
  return NULL;
}

static NOINLINE void poll_queue(void) {
  for (;;) ++g_polls;
}

static void* spinner(void* unused) {
  (void)unused;
  poll_queue();
  return NULL;
}

static NOINLINE void wait_for_next_report(void) {
  for (;;) sleep(3600);
}

static void* sleeper(void* unused) {
  (void)unused;
  wait_for_next_report();
  return NULL;
}

/* Each locks its own mutex, then waits for the other's. */
static NOINLINE void transfer(pthread_mutex_t* from, pthread_mutex_t* to) {
  pthread_mutex_lock(from);
  pthread_barrier_wait(&g_both_locked);
  pthread_mutex_lock(to);
  pthread_mutex_unlock(to);
  pthread_mutex_unlock(from);
}

static void* transfer_a_to_b(void* unused) {
  transfer(&g_account_a, &g_account_b);
  return unused;
}

static void* transfer_b_to_a(void* unused) {
  transfer(&g_account_b, &g_account_a);
  return unused;
}

static int start_thread(const char* name, void* (*body)(void*), void* arg) {
  pthread_t thread;
  int error = pthread_create(&thread, NULL, body, arg);
  if (error != 0) {
    dprintf(STDERR_FILENO, "hang_service: cannot start %s: %s\n", name, strerror(error));
    return -1;
  }
  pthread_setname_np(thread, name);
  return 0;
}

static int serve(char* path) {
  quorvel_init();
  pthread_barrier_init(&g_both_locked, NULL, 2);
  if (start_thread("spinner", spinner, NULL) != 0 || start_thread("sleeper", sleeper, NULL) != 0 ||
      start_thread("transfer-ab", transfer_a_to_b, NULL) != 0 ||
      start_thread("transfer-ba", transfer_b_to_a, NULL) != 0 ||
      start_thread("worker", worker, path) != 0) {
    return 1;
  }
  for (;;) pause();
}

static int hold(const char* path) {
  if (lock_configuration(path) == -1) return 1;
  dprintf(STDOUT_FILENO, "locked\n");
  for (;;) pause();
}

int main(int argc, char** argv) {
  if (argc == 4 && strcmp(argv[3], "--recovery") == 0) {
    g_watch_flags |= QUORVEL_FLAG_RECOVERY;
    --argc;
  }
  if (argc == 3 && strcmp(argv[1], "hold") == 0) return hold(argv[2]);
  if (argc == 3 && strcmp(argv[1], "serve") == 0) return serve(argv[2]);
  dprintf(STDERR_FILENO,
          "usage: hang_service hold FILE\n       hang_service serve FILE [--recovery]\n");
  return 2;
}
