/*
 * Hangs in the way that its argument names, under a watch of one second, until it is killed.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <linux/userfaultfd.h>
#include <poll.h>
#include <pthread.h>
#include <quorvel/quorvel.h>
#include <semaphore.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

static pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;
static volatile unsigned g_count;
static char g_buffer[64];
static volatile ssize_t g_length;

static void require(int holds, const char* what) {
  if (holds) return;
  perror(what);
  exit(1);
}

static void hang_mutex(void) {
  pthread_mutex_lock(&g_mutex);
  pthread_mutex_lock(&g_mutex);
}

static void hang_condition(void) {
  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  pthread_mutex_lock(&g_mutex);
  for (;;) pthread_cond_wait(&condition, &g_mutex);
}

static void hang_futex(void) {
  sem_t semaphore;
  sem_init(&semaphore, 0, 0);
  while (sem_wait(&semaphore) != 0) continue;
}

static void hang_file_lock(void) {
  char path[] = "/tmp/hangs.XXXXXX";
  int first = mkstemp(path), second = open(path, O_RDWR | O_CLOEXEC);
  require(first != -1 && second != -1 && unlink(path) == 0 && flock(first, LOCK_EX) == 0, path);
  while (flock(second, LOCK_EX) != 0) continue;
}

static int open_terminal(int* master) {
  *master = posix_openpt(O_RDWR | O_NOCTTY);
  require(*master != -1 && grantpt(*master) == 0 && unlockpt(*master) == 0, "terminal");
  int terminal = open(ptsname(*master), O_RDWR | O_NOCTTY);
  require(terminal != -1, "terminal");
  return terminal;
}

static void hang_file_read(void) {
  int master, terminal = open_terminal(&master);
  for (;;) g_length = read(terminal, g_buffer, sizeof(g_buffer));
}

static void hang_file_write(void) {
  int master, terminal = open_terminal(&master);
  for (;;) g_length = write(terminal, g_buffer, sizeof(g_buffer));
}

static void hang_socket(void) {
  int ends[2];
  require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "socketpair");
  for (;;) g_length = recv(ends[0], g_buffer, sizeof(g_buffer), 0);
}

static void hang_pipe(void) {
  int ends[2];
  require(pipe(ends) == 0, "pipe");
  for (;;) g_length = read(ends[0], g_buffer, sizeof(g_buffer));
}

static void hang_poll(void) {
  for (;;) poll(NULL, 0, -1);
}

static void hang_child(void) {
  pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;) pause();
  }
  while (waitpid(child, NULL, 0) == -1 && errno == EINTR) continue;
}

static void hang_sleep(void) {
  for (;;) sleep(1000);
}

static void hang_signal(void) {
  for (;;) pause();
}

/* A page that only the holder of a descriptor could give, who does not. */
static void hang_memory(void) {
  int fd = (int)syscall(SYS_userfaultfd, O_CLOEXEC | UFFD_USER_MODE_ONLY);
  struct uffdio_api api = {.api = UFFD_API};
  require(fd != -1 && ioctl(fd, UFFDIO_API, &api) == 0, "userfaultfd");
  const size_t size = (size_t)sysconf(_SC_PAGESIZE);
  char* page = mmap(NULL, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  struct uffdio_register region = {{(uintptr_t)page, size}, UFFDIO_REGISTER_MODE_MISSING, 0};
  require(ioctl(fd, UFFDIO_REGISTER, &region) == 0, "userfaultfd");
  for (;;) g_length = *(volatile char*)page;
}

/* A stop in which its tracer, the parent process, leaves the thread. */
static void hang_stopped(void) {
  require(ptrace(PTRACE_TRACEME, 0, NULL, NULL) == 0, "ptrace");
  for (;;) pthread_kill(pthread_self(), SIGUSR1);
}

static void hang_running(void) {
  for (;;) ++g_count;
}

static const struct {
  const char* kind;
  void (*hang)(void);
} g_hangs[] = {
    {"mutex", hang_mutex},         {"condition", hang_condition}, {"futex", hang_futex},
    {"file-lock", hang_file_lock}, {"file-read", hang_file_read}, {"file-write", hang_file_write},
    {"socket", hang_socket},       {"pipe", hang_pipe},           {"poll", hang_poll},
    {"child", hang_child},         {"sleep", hang_sleep},         {"signal", hang_signal},
    {"memory", hang_memory},       {"stopped", hang_stopped},     {"running", hang_running},
};

static void* watched(void* hang) {
  __quorvel_start_ex("hang", 1, NULL, NULL, QUORVEL_FLAG_LOG | QUORVEL_FLAG_BACKTRACE);
  (*(void (**)(void))hang)();
  return NULL;
}

int main(int argc, char** argv) {
  const size_t count = sizeof(g_hangs) / sizeof(g_hangs[0]);
  size_t which = 0;
  while (which < count && (argc != 2 || strcmp(argv[1], g_hangs[which].kind) != 0)) ++which;
  if (which == count) return 2;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (strcmp(argv[1], "stopped") == 0 && fork() != 0) {
    for (;;) pause(); /* the tracer, which does nothing */
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  quorvel_init();
  pthread_t thread;
  void (*hang)(void) = g_hangs[which].hang;
  require(pthread_create(&thread, NULL, watched, &hang) == 0, "pthread_create");
  for (;;) pause();
}
