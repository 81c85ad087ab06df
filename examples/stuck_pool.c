/*
 * A small service with a pool of 60 threads, of which one reads from a socket that nobody writes
 * to.
 *
 *     stuck_pool      runs until it is ended; the incident comes after 2 seconds
 *
 * The main thread waits until all jobs are done, under a watch. What it waits for is one job in a
 * crowd of idle threads.
 */
#define _GNU_SOURCE
#include <pthread.h>
#include <quorvel/quorvel.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#define WATCH_SECONDS 2
#define WORKERS 60
#define JOBS 200
#define STUCK_JOB 57
#define NOINLINE __attribute__((noinline))

static pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t g_work = PTHREAD_COND_INITIALIZER;
static pthread_cond_t g_done = PTHREAD_COND_INITIALIZER;
static int g_queued, g_finished;
static int g_rates_server[2]; /* the other end belongs to a server that never answers */
static volatile unsigned g_sum;

static NOINLINE unsigned fetch_exchange_rate(void) {
  char answer[64];
  ssize_t length = recv(g_rates_server[0], answer, sizeof(answer), 0);
  return length > 0 ? (unsigned)answer[0] : 0;
}

static NOINLINE unsigned price_order(int job) {
  unsigned price = (unsigned)job;
  if (job == STUCK_JOB) price += fetch_exchange_rate();
  return price;
}

static NOINLINE int wait_for_job(void) {
  pthread_mutex_lock(&g_lock);
  while (g_queued == 0) pthread_cond_wait(&g_work, &g_lock);
  int job = g_queued--;
  pthread_mutex_unlock(&g_lock);
  return job;
}

static void* pool_worker(void* unused) {
  for (;;) {
    g_sum += price_order(wait_for_job());
    pthread_mutex_lock(&g_lock);
    ++g_finished;
    pthread_cond_signal(&g_done);
    pthread_mutex_unlock(&g_lock);
  }
  return unused;
}

static NOINLINE void close_trading_day(void) {
  uint32_t watch = __quorvel_start_ex("close-day", WATCH_SECONDS, NULL, NULL,
                                      QUORVEL_FLAG_LOG | QUORVEL_FLAG_BACKTRACE);
  pthread_mutex_lock(&g_lock);
  g_queued = JOBS;
  pthread_cond_broadcast(&g_work);
  while (g_finished < JOBS) pthread_cond_wait(&g_done, &g_lock);
  pthread_mutex_unlock(&g_lock);
  quorvel_end(watch);
}

int main(void) {
  quorvel_init();
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, g_rates_server) != 0) {
    perror("stuck_pool: socketpair");
    return 1;
  }
  for (int i = 0; i < WORKERS; ++i) {
    pthread_t thread;
    int error = pthread_create(&thread, NULL, pool_worker, NULL);
    if (error != 0) {
      fprintf(stderr, "stuck_pool: cannot start a thread: %s\n", strerror(error));
      return 1;
    }
  }
  close_trading_day();
  return 0;
}
