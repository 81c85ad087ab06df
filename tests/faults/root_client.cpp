// Says whether the kernel runs it as a set-user-id program, and where its device has /data.
#include <device_path.h>
#include <stdio.h>
#include <sys/auxv.h>
#include <unistd.h>

int main() {
  dprintf(STDOUT_FILENO, "%lu %s\n", getauxval(AT_SECURE), DevicePath("/data").c_str());
  _exit(0);  // a sanitizer's check for leaks is not for such a program
}
