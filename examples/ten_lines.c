/* The whole use of the library from C. */
#include <quorvel/quorvel.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

/* Runs on the library's thread while flush_db still hangs. */
static void on_hang(void* database) {
  fprintf(stderr, "flushing %s hangs\n", (const char*)database);
}

/*
 * Takes at least four seconds, so that it still hangs while the incident is written. An incident
 * ends a sleep early: the clock tells whether to go on.
 */
static void flush_db(void) {
  const time_t end = time(NULL) + 5;
  while (time(NULL) < end) sleep(1);
}

int main(void) {
  static char database[] = "accounts.db";
  quorvel_init(); /* once, at start-up */

  uint32_t watch = __quorvel_start_ex("flush-db", 1, on_hang, database,
                                      QUORVEL_FLAG_LOG | QUORVEL_FLAG_BACKTRACE);
  flush_db();         /* must not take one second */
  quorvel_end(watch); /* too late this time: it only logs that the watch is gone */
  return 0;
}
