// A process with many threads, each 25 frames deep, that goes through incidents on command and says
// how long they took.
//
//     incident_bench THREADS    with QUORVEL_HOST_ROOT set to a device root
//
// Each empty line on stdin asks for one whole response to an expired watch with log and backtrace.
// The answer is a line of JSON on stdout: the times of the whole and of its parts, for how long
// each target thread was parked, the heap in use. The calling thread stands for the monitor: it is
// the one that is not dumped.

#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <quorvel/quorvel.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>

#include "core/timeout_response.h"
#include "descend.h"
#include "log/log_file.h"
#include "log/quorvel_log.h"
#include "unwind/unwindstack_wrapper_thread.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kFrames = 25;
constexpr int kFramesAround = 4;  // pause inside; the thread's body, start_thread, clone outside
constexpr int kMaxThreads = 1024;
constexpr uint32_t kFlags = QUORVEL_FLAG_LOG | QUORVEL_FLAG_BACKTRACE;
constexpr time_t kBeyondRateLimit = 100;  // seconds

double MicrosecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

// Parts of the latest incident, in microseconds.
struct Part {
  const char* name;
  double taken;
};
Part g_open = {"clean up and open the file", 0};
Part g_kernel_stacks = {"kernel stacks", 0};
Part g_user_stacks = {"user stacks", 0};
Part g_close = {"close and report", 0};
Part* const g_parts[] = {&g_open, &g_kernel_stacks, &g_user_stacks, &g_close};

// How long each target of the latest dump was parked, in microseconds.
double g_parked[kMaxThreads];
std::atomic<int> g_parked_count{0};
thread_local Clock::time_point t_parked_at;

size_t g_heap_at_start = 0;
time_t g_time_shift = 0;

class PartTimer {
 public:
  explicit PartTimer(Part* part) : part_(part) {}
  ~PartTimer() { part_->taken += MicrosecondsSince(start_); }
  PartTimer(const PartTimer&) = delete;
  PartTimer& operator=(const PartTimer&) = delete;

 private:
  Part* const part_;
  const Clock::time_point start_ = Clock::now();
};

}  // namespace

// The link sends the library's calls of these functions here (--wrap).
#define WRAPPED(result, name, mangled, ...)                  \
  result Real##name(__VA_ARGS__) __asm__("__real_" mangled); \
  result Wrap##name(__VA_ARGS__) __asm__("__wrap_" mangled); \
  result Wrap##name(__VA_ARGS__)

WRAPPED(void, InitLog, "_Z14QuorvelInitLogib", int flags, bool is_vendor) {
  const PartTimer timer(&g_open);
  RealInitLog(flags, is_vendor);
}
WRAPPED(void, KernBacktrace, "_Z20QuorvelKernBacktracei", int tid) {
  const PartTimer timer(&g_kernel_stacks);
  RealKernBacktrace(tid);
}
WRAPPED(void, UserBacktrace, "_Z20QuorvelUserBacktracei", int tid) {
  const PartTimer timer(&g_user_stacks);
  RealUserBacktrace(tid);
}
WRAPPED(void, EndLog, "_Z13QuorvelEndLogv", ) {
  const PartTimer timer(&g_close);
  RealEndLog();
}

// The handler on the target thread begins with a copy of its context and ends when the unwinder has
// woken it: in between the thread is stopped.
WRAPPED(void, CopyContext, "_ZN26unwindstack_wrapper_thread12copy_contextEPv",
        unwindstack_wrapper_thread* entry, void* context) {
  t_parked_at = Clock::now();
  RealCopyContext(entry, context);
}
WRAPPED(bool, Wait, "_ZN26unwindstack_wrapper_thread4waitEi", unwindstack_wrapper_thread* entry,
        int value) {
  const bool reached = RealWait(entry, value);
  if (value == kRendezvousStackRead) {
    const double parked = MicrosecondsSince(t_parked_at);
    const int i = g_parked_count++;
    if (i < kMaxThreads) g_parked[i] = parked;
  }
  return reached;
}

// Incidents follow each other faster here than the rate limit allows.
WRAPPED(time_t, Time, "time", time_t* out) {
  const time_t now = RealTime(nullptr) + g_time_shift;
  if (out != nullptr) *out = now;
  return now;
}

namespace {

std::atomic<int> g_watched{0};

void* Body(void* index) {
  if (index == nullptr) g_watched = gettid();
  Descend<kFrames - kFramesAround>();
  return nullptr;
}

bool StartThreads(int count) {
  for (intptr_t i = 0; i < count; ++i) {
    pthread_t thread;
    if (pthread_create(&thread, nullptr, Body, reinterpret_cast<void*>(i)) != 0) return false;
  }
  while (g_ready < count) usleep(1000);
  return true;
}

// Frames in the newest incident file: its lines that begin with "  #". Uses no heap.
int FramesInFile() {
  const int fd = open(QuorvelLastLogPath().c_str(), O_RDONLY | O_CLOEXEC);
  static char block[65536];
  int frames = 0;
  bool line_begins = true;
  for (ssize_t got; (got = read(fd, block, sizeof(block))) > 0;) {
    for (ssize_t i = 0; i < got; ++i) {
      if (line_begins && block[i] == '#') ++frames;
      line_begins = block[i] == '\n' || (line_begins && block[i] == ' ');
    }
  }
  close(fd);
  return frames;
}

void PrintResult(double taken, size_t heap) {
  printf("{\"taken\": %.1f, \"frames\": %d, \"heap_at_start\": %zu, \"heap\": %zu, \"parked\": [",
         taken, FramesInFile(), g_heap_at_start, heap);
  for (int i = 0; i < g_parked_count; ++i) printf("%s%.1f", i == 0 ? "" : ", ", g_parked[i]);
  printf("], \"parts\": {");
  for (const Part* part : g_parts) {
    printf("%s\"%s\": %.1f", part == &g_open ? "" : ", ", part->name, part->taken);
  }
  printf("}}\n");
  fflush(stdout);
}

void Incident() {
  g_time_shift += kBeyondRateLimit;
  g_parked_count = 0;
  for (Part* part : g_parts) part->taken = 0;
  const QuorvelTimeoutInfo info = {1, nullptr, g_watched, "bench", time(nullptr), nullptr, kFlags};
  const Clock::time_point start = Clock::now();
  QuorvelTimeoutResponse(info, false);
  const double taken = MicrosecondsSince(start);
  PrintResult(taken, mallinfo2().uordblks);
}

}  // namespace

int main(int argc, char** argv) {
  const int threads = argc == 2 ? atoi(argv[1]) : 0;
  if (threads < 1 || threads > kMaxThreads || !StartThreads(threads)) return 2;
  // Streams use no heap once the incidents begin.
  static char in[BUFSIZ], out[BUFSIZ];
  setvbuf(stdin, in, _IOFBF, sizeof(in));
  setvbuf(stdout, out, _IOFBF, sizeof(out));
  g_heap_at_start = mallinfo2().uordblks;
  while (getchar() == '\n') Incident();
  return 0;
}
