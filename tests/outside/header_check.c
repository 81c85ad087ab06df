/* The public header alone, in the strictest C99 and C++ that the compiler offers. */
#include <quorvel/quorvel.h>

static void callback(void* arg) {
  *(int*)arg = 1;
}

int main(void) {
  int called = 0;
  uint32_t id = __quorvel_start_ex("name", 1, callback, &called, QUORVEL_FLAG_LOG);
  if (id != QUORVEL_INVALID_ID) return 1; /* nothing is armed before quorvel_init */
  quorvel_init();
  id = __quorvel_start_ex(
      "name", 60, callback, &called,
      QUORVEL_FLAG_LOG | QUORVEL_FLAG_BACKTRACE | QUORVEL_FLAG_RECOVERY | QUORVEL_FLAG_SYSTRACE);
  if (id != 0 || quorvel_update(id, 30) != id) return 2;
  quorvel_end(id);
  if (quorvel_update(id, 30) != QUORVEL_INVALID_ID) return 3;
  quorvel_clock_sleep(0);
  QuorvelPrintLine("%s", "a line");
  return called;
}
