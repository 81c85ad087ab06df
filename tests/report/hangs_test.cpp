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

  // What is found in the log, once the incident was reported; nothing after half a minute.
  Incident Read(LogReader* reader) const {
    Incident incident;
    std::string error = "no incident";
    for (const auto end = steady_clock::now() + 30s; steady_clock::now() < end;) {
      std::ifstream journal(root_ / "data/log/dravik/events.jsonl");
      std::string line;
      if (std::getline(journal, line)) {
        const Inputs logs = FindLogs({root_ / "data/log/reliability/quorvel"}, false);
        const int fd = open(logs.files.at(0).c_str(), O_RDONLY | O_CLOEXEC);
        EXPECT_TRUE(reader->Read(fd, logs.files[0], &incident, &error)) << error;
        close(fd);
        return incident;
      }
      std::this_thread::sleep_for(20ms);
    }
    ADD_FAILURE() << "no incident";
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
    EXPECT_EQ("hangs", incident.program);
    if (incident.reason.kind == "unknown" && incident.Watched()->state != '\0') {
      needs_kernel += " " + kind;
    } else {
      EXPECT_EQ(kind, incident.reason.kind) << incident.reason.text;
    }
  }
  if (!needs_kernel.empty()) GTEST_SKIP() << "no kernel stack without privilege:" << needs_kernel;
}

#ifdef HANGS_BUILDS
// Builds of one program by several compilers and with several optimisations.
std::vector<std::string> Builds() {
  std::vector<std::string> builds;
  std::istringstream list(HANGS_BUILDS);
  for (std::string path; std::getline(list, path, ',');) builds.push_back(path);
  return builds;
}

TEST(SignatureOfRealHangTest, BuildsDisagree) {
  std::list<Hang> hangs;
  for (const std::string& build : Builds()) {
    hangs.emplace_back(build, "ledger");
    hangs.emplace_back(build, "ledger");
  }
  LogReader reader;
  for (const Hang& hang : hangs) {
    EXPECT_EQ("hangs: hang: mutex: Ledger::Append < Book < main::{lambda}",
              hang.Read(&reader).signature);
  }
}

TEST(SignatureOfRealHangTest, InlinedCallsAreLostDespiteSymbols) {
  std::map<std::string, Hang> hangs;
  for (const std::string& build : Builds()) hangs.try_emplace(build, build, "settle");
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
