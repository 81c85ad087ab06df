/* The whole use of the library from C. */
#include <quorvel/quorvel.h>
#include <stdio.h>
#include <unistd.h>

/* Runs on the library's thread while flush_db still hangs. */
static void on_hang(void* database) {
  fprintf(stderr, "flushing %s hangs\n", (const char*)database);
}

/* Takes two to three seconds. An incident interrupts a sleep, which goes on with what is left. */
static void flush_db(void) {
  for (unsigned left = 3; left > 0;) left = sleep(left);
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
