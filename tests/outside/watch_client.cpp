// What the whole-process tests run: a program that hangs, or not, under a watch.
//
//     watch_client hang FLAGS TIMEOUT [FILE]  hangs until its callback has been called and the
//                                             incident is over; with FILE: in flock on it
//     watch_client idle                       nothing armed, then one watch
//
// Exits with 0, unless the library ends it.

#include <fcntl.h>
#include <quorvel/quorvel.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>
#include <quorvel/watch.hpp>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/common_interface_defs.h>
#endif

static std::atomic<long> g_called_at{0};

static long NowMillis() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

static void OnHang(void*) {
  g_called_at = NowMillis();
}

extern "C" __attribute__((noinline)) int watched_work(const char* file) {
  if (file == nullptr) {
    while (g_called_at == 0) usleep(10000);
    return 0;
  }
  const int fd = open(file, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  return flock(fd, LOCK_EX);
}

// Path of the task directory of the monitor thread; empty when there is not exactly one.
static std::string MonitorTask() {
  std::string found;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string name;
    std::ifstream(entry.path() / "comm") >> name;
    if (name != "quorvel") continue;
    if (!found.empty()) return "";
    found = entry.path();
  }
  return found;
}

static long MonitorWakeUps() {
  std::ifstream status(MonitorTask() + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("voluntary_ctxt_switches:", 0) == 0) return atol(line.c_str() + 24);
  }
  return -1;
}

// A response goes on after its callback; its last words are in the log, which is a file here.
static bool ResponseIsOver() {
  std::ifstream log("/proc/self/fd/2");
  for (std::string line; std::getline(log, line);) {
    if (line.find("not set recovery flag") != std::string::npos) return true;
    if (line.find("Skip exit") != std::string::npos) return true;
  }
  return false;
}

// The library must leave the process's own exceptions alone.
static bool ExceptionsWork() {
  try {
    throw std::runtime_error("x");
  } catch (const std::exception&) {
    return true;
  }
}

static int Hang(uint32_t flags, int timeout, const char* file) {
  const long start = NowMillis();
  const uint32_t id = __quorvel_start_ex("watched_work", timeout, OnHang, nullptr, flags);
  std::thread worker;
  if (file != nullptr) {
    worker = std::thread([=] {
      quorvel::Watch watch("flock", timeout, flags, OnHang);
      watched_work(file);
    });
    quorvel_end(id);
    while (g_called_at == 0) usleep(10000);
    worker.detach();
  } else {
    watched_work(nullptr);
  }
  printf("called after %ld ms\n", g_called_at - start);
  printf("update refused: %d\n", quorvel_update(id, 5) == QUORVEL_INVALID_ID);
  while (!ResponseIsOver()) usleep(10000);
  printf("exceptions: %d\n", ExceptionsWork());
  return 0;
}

static int Idle() {
  quorvel_init();
  usleep(200000);
  if (MonitorTask().empty()) return 2;
  sleep(5);
  const long before = MonitorWakeUps();
  sleep(3);
  printf("wake-ups while idle: %ld\n", MonitorWakeUps() - before);
  return Hang(0, 1, nullptr);
}

int main(int argc, char** argv) {
#if defined(__SANITIZE_THREAD__)  // its own thread must not meet the unwinder's signal
  std::thread([] {}).join();
  __sanitizer_sandbox_arguments nothing_to_keep = {};
  __sanitizer_sandbox_on_notify(&nothing_to_keep);
#endif
  setvbuf(stdout, nullptr, _IOLBF, 0);
  quorvel_init();
  int result = 64;
  if (argc >= 4 && strcmp(argv[1], "hang") == 0) {
    result =
        Hang(static_cast<uint32_t>(atoi(argv[2])), atoi(argv[3]), argc > 4 ? argv[4] : nullptr);
  } else if (argc == 2 && strcmp(argv[1], "idle") == 0) {
    result = Idle();
  }
  fflush(stdout);
  _exit(result);
}
