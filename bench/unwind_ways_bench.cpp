// What other ways to unwind a stopped thread of the own process cost, beside the library's.
//
//     unwind_ways_bench ROUNDS
//
// 32 threads, each 25 frames deep, wait in pause. In every round each way unwinds each of them
// once, in turns. Prints a line of JSON: for every way the microseconds of each unwind, from the
// signal to the last frame. The ways in the handler may fault on a broken stack and may wait for
// the loader's lock, which the interrupted thread may hold: that is why the library uses none of
// them.

#define UNW_LOCAL_ONLY
#include <libunwind.h>
#undef UNW_LOCAL_ONLY

#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>
#include <unwind.h>

#include <atomic>
#include <chrono>
#include <vector>

#include "descend.h"
#include "unwind/unwindstack_wrapper.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kThreads = 32;
constexpr int kFrames = 25;
constexpr int kFramesAround = 4;  // pause inside; the thread's body, start_thread, clone outside
constexpr int kMaxRounds = 1000;
constexpr int kNameSize = 256;
constexpr int kSignal = SIGUSR2;

std::atomic<int> g_tids[kThreads];
sem_t g_done;
int g_frames = 0;  // of the latest unwind in a handler

void* Body(void* index) {
  g_tids[reinterpret_cast<intptr_t>(index)] = gettid();
  Descend<kFrames - kFramesAround>();
  return nullptr;
}

_Unwind_Reason_Code CountFrame(_Unwind_Context* context, void* count) {
  if (_Unwind_GetIP(context) != 0) ++*static_cast<int*>(count);
  return _URC_NO_REASON;
}

void BacktraceOfTheCompiler(int, siginfo_t*, void*) {
  g_frames = 0;
  _Unwind_Backtrace(CountFrame, &g_frames);
  sem_post(&g_done);
}

template <bool kNames>
void LocalUnwind(int, siginfo_t*, void* context) {
  unw_cursor_t cursor;
  g_frames = 0;
  if (unw_init_local2(&cursor, static_cast<unw_context_t*>(context), UNW_INIT_SIGNAL_FRAME) == 0) {
    do {
      char name[kNameSize];
      unw_word_t offset;
      if (kNames) unw_get_proc_name(&cursor, name, sizeof(name), &offset);
      ++g_frames;
    } while (unw_step(&cursor) > 0);
  }
  sem_post(&g_done);
}

int UnwindInHandler(int tid, void (*handler)(int, siginfo_t*, void*)) {
  struct sigaction action = {};
  action.sa_sigaction = handler;
  action.sa_flags = SA_SIGINFO | SA_RESTART | SA_ONSTACK;
  sigaction(kSignal, &action, nullptr);
  tgkill(getpid(), tid, kSignal);
  while (sem_wait(&g_done) != 0) {
  }
  return g_frames;
}

int UnwindByLibrary(int tid) {
  unwindstack_wrapper unwinder;
  return unwinder.unwind(tid, nullptr, unwindstack_wrapper::kMaxFrames)
             ? static_cast<int>(unwinder.num_frames)
             : 0;
}

struct Way {
  const char* name;
  int (*unwind)(int tid);
  std::vector<double> times;  // microseconds
};

Way g_ways[] = {
    {"this library, names included", UnwindByLibrary, {}},
    {"the compiler's `_Unwind_Backtrace` in the handler, addresses only",
     [](int tid) { return UnwindInHandler(tid, BacktraceOfTheCompiler); },
     {}},
    {"libunwind's local interface in the handler, addresses only",
     [](int tid) { return UnwindInHandler(tid, LocalUnwind<false>); },
     {}},
    {"libunwind's local interface in the handler, names included",
     [](int tid) { return UnwindInHandler(tid, LocalUnwind<true>); },
     {}},
};

bool StartThreads() {
  for (intptr_t i = 0; i < kThreads; ++i) {
    pthread_t thread;
    if (pthread_create(&thread, nullptr, Body, reinterpret_cast<void*>(i)) != 0) return false;
  }
  while (g_ready < kThreads) usleep(1000);
  return true;
}

bool Measure(Way* way, int tid) {
  const Clock::time_point start = Clock::now();
  const int frames = way->unwind(tid);
  way->times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  // A thread may just have been on its way back into its innermost call.
  if (frames >= kFrames - 1) return true;
  fprintf(stderr, "%s: %d frames\n", way->name, frames);
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc == 2 ? atoi(argv[1]) : 0;
  if (rounds < 1 || rounds > kMaxRounds || sem_init(&g_done, 0, 0) != 0 || !StartThreads())
    return 2;
  for (int round = 0; round < rounds; ++round) {
    for (const std::atomic<int>& tid : g_tids) {
      for (Way& way : g_ways) {
        if (!Measure(&way, tid)) return 1;
      }
    }
  }
  const char* separator = "{";
  for (const Way& way : g_ways) {
    printf("%s\"%s\": [", separator, way.name);
    for (size_t i = 0; i < way.times.size(); ++i)
      printf("%s%.1f", i == 0 ? "" : ", ", way.times[i]);
    printf("]");
    separator = ", ";
  }
  printf("}\n");
  return 0;
}
