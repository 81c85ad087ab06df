// Processes that load the library as it is installed: late, or before they fork.

#include <dirent.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <quorvel/quorvel.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "stress/storm.h"
#include "support/emulated.h"
#include "support/test_root.h"

namespace {

constexpr uint32_t kLogWithStacks = QUORVEL_FLAG_LOG | QUORVEL_FLAG_BACKTRACE;

struct Library {
  void* const handle = dlopen(QUORVEL_LIBRARY, RTLD_NOW);
  decltype(&quorvel_init) init = Symbol<decltype(init)>("quorvel_init");
  decltype(&__quorvel_start_ex) start = Symbol<decltype(start)>("__quorvel_start_ex");
  decltype(&quorvel_end) end = Symbol<decltype(end)>("quorvel_end");
  decltype(&QuorvelPrintLine) print = Symbol<decltype(print)>("QuorvelPrintLine");

  template <typename Function>
  Function Symbol(const char* name) {
    if (handle == nullptr) fprintf(stderr, "%s\n", dlerror());
    return reinterpret_cast<Function>(dlsym(handle, name));
  }
};

void Pause() {
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
}

void Await(const std::atomic<int>& value) {
  while (value == 0) Pause();
}

void Raise(void* flag) {
  *static_cast<std::atomic<int>*>(flag) = 1;
}

std::vector<std::string> LogNames() {
  std::vector<std::string> names;
  for (const std::string& name : test_root::List(test_root::kLogDir)) {
    if (name[0] == 'q') names.push_back(test_root::Path(test_root::kLogDir + name));
  }
  return names;
}

// The log files that this process has open. An incident is over when there is none.
int OpenLogs() {
  int count = 0;
  DIR* const dir = opendir("/proc/self/fd");
  while (const dirent* entry = readdir(dir)) {
    char target[256] = {};
    if (readlinkat(dirfd(dir), entry->d_name, target, sizeof(target) - 1) > 0) {
      count += strstr(target, "/quorvel@") != nullptr;
    }
  }
  closedir(dir);
  return count;
}

std::atomic<int> g_stop{0};

__attribute__((noinline)) void WorkSinceBefore(std::atomic<int>* tid) {
  *tid = static_cast<int>(syscall(SYS_gettid));
  while (g_stop == 0) Pause();
}

TEST(LateLoad, ThreadsThatWereThereBeforeAreInTheIncident) {
  const ScopedDeadline deadline(60);
  std::atomic<int> tids[4] = {};
  std::vector<std::thread> threads;
  for (std::atomic<int>& tid : tids) threads.emplace_back(WorkSinceBefore, &tid);
  for (const std::atomic<int>& tid : tids) Await(tid);

  Library library;
  std::atomic<int> called{0};
  library.init();
  ASSERT_NE(library.start("late", 1, Raise, &called, kLogWithStacks), QUORVEL_INVALID_ID);
  dlclose(library.handle);  // it stays
  Await(called);
  while (OpenLogs() > 0) Pause();
  g_stop = 1;
  for (std::thread& thread : threads) thread.join();

  ASSERT_EQ(LogNames().size(), 1u);
  const std::string text = test_root::ReadFile(LogNames()[0]);
  for (const std::atomic<int>& tid : tids) {
    const size_t section = text.find("\n\ntid = " + std::to_string(tid) + "\n  #00 ");
    ASSERT_NE(section, std::string::npos) << text;
    EXPECT_LT(text.find("WorkSinceBefore", section), text.find("\n\n", section + 2)) << text;
  }
}

struct OpenIncident {
  std::atomic<int> open{0}, close{0};
};

void HoldOpen(void* incident) {
  static_cast<OpenIncident*>(incident)->open = 1;
  Await(static_cast<OpenIncident*>(incident)->close);
}

// In the child. Its exit status: 0, or the number of the promise that was not kept.
int UseInChild(const Library& library, const std::atomic<int>& parents_watch) {
  alarm(30);
  if (OpenLogs() != 0) return 1;
  library.print("a line of the child\n");
  if (library.start("child", 1, nullptr, nullptr, 0) != QUORVEL_INVALID_ID) return 2;
  library.end(0);
  if (kThreadSanitizer) return 0;
  std::atomic<int> called{0};
  library.init();
  if (library.start("child", 2, Raise, &called, kLogWithStacks) == QUORVEL_INVALID_ID) return 3;
  Await(called);
  while (OpenLogs() > 0) Pause();
  return parents_watch == 0 ? 0 : 4;
}

TEST(Fork, ChildHasNoPartInTheParentsIncidentAndMayBeginItsOwn) {
  SKIP_UNDER_EMULATION("a forked child cannot start threads");
  const ScopedDeadline deadline(60);
  if (kThreadSanitizer) puts("[  SKIPPED ] a child's threads: the thread sanitizer has none");
  Library library;
  OpenIncident incident;
  std::atomic<int> later{0};
  library.init();
  library.start("parent", 1, HoldOpen, &incident, QUORVEL_FLAG_LOG);
  library.start("parent", 2, Raise, &later, 0);  // would fire first in a child that kept it
  Await(incident.open);
  const pid_t child = fork();
  if (child == 0) _exit(UseInChild(library, later));
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0) << "exit status " << WEXITSTATUS(status);
  EXPECT_EQ(later, 0) << "fired while another response is running";
  incident.close = 1;
  Await(later);

  const std::vector<std::string> names = LogNames();
  ASSERT_EQ(names.size(), kThreadSanitizer ? 1u : 2u);
  const std::string text = test_root::ReadFile(names[0]);
  EXPECT_NE(text.find("timeout function: parent\n"), std::string::npos) << text;
  EXPECT_EQ(text.find("child"), std::string::npos) << text;
  if (kThreadSanitizer) return;
  EXPECT_NE(test_root::ReadFile(names[1]).find("timeout function: child\n"), std::string::npos);
}

}  // namespace
