// Responds to one expired watch: incident_client WATCH-NAME. Says whether the kernel runs it as a
// set-user-id program, and when the callback has been called.
#include <stdio.h>
#include <sys/auxv.h>
#include <time.h>
#include <unistd.h>

#include "core/timeout_response.h"

int main(int, char** argv) {
  setvbuf(stdout, nullptr, _IONBF, 0);
  if (getauxval(AT_SECURE) != 0) puts("set-user-id");
  const QuorvelCallback callback = [](void*) { puts("called"); };
  QuorvelTimeoutResponse({0x201, callback, getpid(), argv[1], time(nullptr), nullptr,
                          QUORVEL_FLAG_LOG | QUORVEL_FLAG_BACKTRACE | QUORVEL_FLAG_SYSTRACE},
                         false);
  puts("still running");
  return 0;
}
