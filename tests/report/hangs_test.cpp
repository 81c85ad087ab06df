// Programs that really hang: their logs, and what is found in them.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <list>
#include <map>
#include <thread>

#include "input_files.h"
#include "log_text.h"
#include "reason.h"
#include "symbols.h"

namespace report {
namespace {

namespace fs = std::filesystem;
using std::chrono::steady_clock;
using namespace std::chrono_literals;

// A program that hangs, in a device root of its own, until its incident is written.
class Hang {
 public:
  explicit Hang(const std::string& program, const char* argument) {
    char name[] = "/tmp/hang.XXXXXX";
    root_ = mkdtemp(name);
    for (const char* dir :
         {"data/log/reliability/quorvel", "data/log/dravik", "dev/__properties__"}) {
      fs::create_directories(root_ / dir);
    }
    std::ofstream(root_ / "dev/__properties__/dravik.event.12.config") << 1;
    pid_ = fork();
    if (pid_ != 0) return;
    setenv("QUORVEL_HOST_ROOT", root_.c_str(), 1);
    dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
    execl(program.c_str(), program.c_str(), argument, nullptr);
    _exit(127);
  }

  ~Hang() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    fs::remove_all(root_);
  }

  // What is found in the log, once the incident was reported.
  Incident Read(LogReader* reader) const {
    std::string event, error;
    for (const auto end = steady_clock::now() + 30s; steady_clock::now() < end && event.empty();) {
      std::this_thread::sleep_for(20ms);
      std::getline(std::ifstream(root_ / "data/log/dravik/events.jsonl"), event);
    }
    const std::string log = FindLogs({root_ / "data/log/reliability/quorvel"}, false).files.at(0);
    const int fd = open(log.c_str(), O_RDONLY | O_CLOEXEC);
    Incident incident;
    EXPECT_TRUE(reader->Read(fd, log, &incident, &error)) << error;
    close(fd);
    return incident;
  }

 private:
  fs::path root_;
  pid_t pid_ = -1;
};

TEST(ReasonOfRealHangTest, IsNotFound) {
  std::map<std::string, Hang> hangs;  // all at the same time, so that they are waited for once
  for (const char* kind :
       {"mutex", "condition", "futex", "file-lock", "file-read", "file-write", "socket", "pipe",
        "poll", "child", "sleep", "signal", "memory", "stopped", "running"}) {
    hangs.try_emplace(kind, HANGS, kind);
  }
  std::string needs_kernel;
  for (const auto& [kind, hang] : hangs) {
    LogReader reader;
    const Incident incident = hang.Read(&reader);
    ASSERT_NE(nullptr, incident.Watched()) << kind;
    if (incident.reason.kind == "unknown" && incident.Watched()->state != '\0') {
      needs_kernel += " " + kind;
    } else {
      EXPECT_EQ(kind, incident.reason.kind) << incident.reason.text;
    }
  }
  if (!needs_kernel.empty()) GTEST_SKIP() << "no kernel stack without privilege:" << needs_kernel;
}

#ifdef HANGS_BUILDS
// Builds of the program by several compilers and with several optimisations.
constexpr const char* kBuilds[] = {HANGS_BUILDS};

TEST(SignatureOfRealHangTest, BuildsDisagree) {
  std::list<Hang> hangs;
  for (const char* build : kBuilds) {
    hangs.emplace_back(build, "append");
    hangs.emplace_back(build, "append");
  }
  LogReader reader;
  for (const Hang& hang : hangs) {
    EXPECT_EQ("hangs: hang: mutex: Append < Book < main::{lambda}", hang.Read(&reader).signature);
  }
}

TEST(SignatureOfRealHangTest, InlinedCallsAreLostDespiteSymbols) {
  std::map<std::string, Hang> hangs;
  for (const char* build : kBuilds) hangs.try_emplace(build, build, "settle");
  for (const auto& [build, hang] : hangs) {
    Symbols symbols({fs::path(build).parent_path().parent_path() / "unstripped"});
    LogReader reader(&symbols);
    const Incident incident = hang.Read(&reader);
    EXPECT_EQ("hangs: hang: mutex: Settle < Close < main::{lambda}", incident.signature) << build;
    const Frame* const own = FindOwnFrame(incident.Watched()->user);
    ASSERT_NE(nullptr, own);
    EXPECT_EQ(0u, own->source.find("hangs.cpp:")) << own->source;
  }
}
#endif

}  // namespace
}  // namespace report
