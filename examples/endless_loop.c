/*
 * A small service with a thread in an endless loop.
 *
 *     endless_loop    runs until it is ended; the incident comes after 2 seconds
 *
 * A list of parts became a circle; whoever adds their prices goes round for ever. Beside it threads
 * go about their idle business.
 */
#define _GNU_SOURCE
#include <poll.h>
#include <pthread.h>
#include <quorvel/quorvel.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#define WATCH_SECONDS 2
#define PARTS 8
#define NOINLINE __attribute__((noinline))

struct part {
  unsigned price;
  const struct part* volatile next;
};

static struct part g_parts[PARTS];
static volatile unsigned g_total;

static NOINLINE unsigned add_prices(const struct part* part) {
  unsigned sum = 0;
  for (; part != NULL; part = part->next) sum += part->price;
  return sum;
}

static NOINLINE void build_catalogue(void) {
  for (int i = 0; i < PARTS; ++i) {
    g_parts[i].price = (unsigned)i;
    g_parts[i].next = &g_parts[(i + 1) % PARTS]; /* the last should have none */
  }
}

static NOINLINE void print_invoice(void) {
  uint32_t watch = __quorvel_start_ex("print-invoice", WATCH_SECONDS, NULL, NULL,
                                      QUORVEL_FLAG_LOG | QUORVEL_FLAG_BACKTRACE);
  g_total = add_prices(g_parts);
  quorvel_end(watch);
}

static void* invoice_printer(void* unused) {
  build_catalogue();
  print_invoice();
  return unused;
}

static void* event_loop(void* unused) {
  for (;;) poll(NULL, 0, -1);
  return unused;
}

int main(void) {
  pthread_t thread;
  quorvel_init();
  int error = 0;
  for (int i = 0; i < 3 && error == 0; ++i) {
    error = pthread_create(&thread, NULL, event_loop, NULL);
  }
  if (error == 0) error = pthread_create(&thread, NULL, invoice_printer, NULL);
  if (error != 0) {
    fprintf(stderr, "endless_loop: cannot start a thread: %s\n", strerror(error));
    return 1;
  }
  for (;;) pause();
}
