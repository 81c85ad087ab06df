// Hangs in the way that its argument names, under a watch of one second, until it is killed.
// "append" waits through a template, a lambda and std::function, "settle" through a function that
// an optimising compiler inlines: each has one signature, whatever compiler and optimisation built
// it.
#include <fcntl.h>
#include <linux/userfaultfd.h>
#include <poll.h>
#include <pty.h>
#include <quorvel/quorvel.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

std::mutex g_mutex;  // locked by the first thread
const pthread_t g_first_thread = pthread_self();
volatile unsigned g_count;
char g_buffer[64];
volatile ssize_t g_length;

void Require(bool holds, const char* what) {
  if (holds) return;
  perror(what);
  exit(1);
}

template <typename Item>
[[gnu::noinline]] void Append(const Item& item, std::vector<Item>* items) {
  const std::lock_guard<std::mutex> lock(g_mutex);
  items->push_back(item);
}

[[gnu::noinline]] size_t Book(int amount) {
  std::vector<std::string> items;
  Append(std::to_string(amount), &items);
  return items.size();
}

inline void Settle(std::mutex* mutex) {
  mutex->lock();
  ++g_count;
  mutex->unlock();
}

[[gnu::noinline]] unsigned Close() {
  Settle(&g_mutex);
  return g_count;
}

void HangInCondition() {
  std::mutex mutex;
  std::unique_lock<std::mutex> lock(mutex);
  std::condition_variable().wait(lock);
}

int OpenTerminal() {
  int master, terminal;
  Require(openpty(&master, &terminal, nullptr, nullptr, nullptr) == 0, "openpty");
  return terminal;
}

const int g_terminal = OpenTerminal();

void HangInSocket() {
  g_length = recv(socket(AF_UNIX, SOCK_DGRAM, 0), g_buffer, sizeof(g_buffer), 0);
}

void HangInPipe() {
  int ends[2];
  Require(pipe(ends) == 0, "pipe");
  g_length = read(ends[0], g_buffer, sizeof(g_buffer));
}

void HangInChild() {
  if (fork() == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;) pause();
  }
  wait(nullptr);
}

// A page that only the holder of a descriptor could give, who does not.
void HangInMemory() {
  const int fd = static_cast<int>(syscall(SYS_userfaultfd, O_CLOEXEC | UFFD_USER_MODE_ONLY));
  uffdio_api api = {UFFD_API, 0, 0};
  Require(fd != -1 && ioctl(fd, UFFDIO_API, &api) == 0, "userfaultfd");
  const auto size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  void* const page = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  uffdio_register region = {
      {reinterpret_cast<uintptr_t>(page), size}, UFFDIO_REGISTER_MODE_MISSING, 0};
  Require(ioctl(fd, UFFDIO_REGISTER, &region) == 0, "userfaultfd");
  g_length = *static_cast<volatile char*>(page);
}

// A stop in which its tracer, the parent process, leaves the thread.
void HangInStop() {
  Require(ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0, "ptrace");
  raise(SIGUSR1);
}

[[gnu::noinline]] void Watched(const std::function<void()>& hang) {
  __quorvel_start_ex("hang", 1, nullptr, nullptr, QUORVEL_FLAG_LOG | QUORVEL_FLAG_BACKTRACE);
  for (;;) hang();
}

}  // namespace

int main(int, char** argv) {
  const std::map<std::string, std::function<void()>> hangs = {
      {"append", [] { g_length = static_cast<ssize_t>(Book(1)); }},
      {"settle", [] { g_length = Close(); }},
      {"mutex", [] { g_mutex.lock(); }},
      {"condition", HangInCondition},
      {"futex", [] { pthread_join(g_first_thread, nullptr); }},
      {"file-lock", [] { flock(open("/proc/self/exe", O_RDONLY | O_CLOEXEC), LOCK_EX); }},
      {"file-read", [] { g_length = read(g_terminal, g_buffer, sizeof(g_buffer)); }},
      {"file-write", [] { g_length = write(g_terminal, g_buffer, sizeof(g_buffer)); }},
      {"socket", HangInSocket},
      {"pipe", HangInPipe},
      {"poll", [] { poll(nullptr, 0, -1); }},
      {"child", HangInChild},
      {"sleep", [] { sleep(1000); }},
      {"signal", [] { pause(); }},
      {"memory", HangInMemory},
      {"stopped", HangInStop},
      {"running", [] { ++g_count; }},
  };
  const std::function<void()>& hang = hangs.at(argv[1]);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (argv[1] == std::string("stopped") && fork() != 0) {
    for (;;) pause();  // the tracer, which does nothing
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  quorvel_init();
  g_mutex.lock();
  std::thread thread([&hang] { Watched(hang); });
  for (;;) pause();
}
