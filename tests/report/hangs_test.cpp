// Programs that really hang: their logs, and what is found in them.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include "input_files.h"
#include "log_text.h"
#include "reason.h"
#include "symbols.h"

namespace report {
namespace {

namespace fs = std::filesystem;

// A program that hangs, in a device root of its own, until its incident is written.
class Hang {
 public:
  explicit Hang(const std::vector<std::string>& call) {
    char name[] = "/tmp/hang.XXXXXX";
    root_ = mkdtemp(name);
    for (const char* dir :
         {"data/log/reliability/quorvel", "data/log/dravik", "dev/__properties__"}) {
      fs::create_directories(root_ / dir);
    }
    std::ofstream(root_ / "dev/__properties__/dravik.event.12.config") << 1;
    std::vector<char*> arguments;
    for (const std::string& word : call) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    pid_ = fork();
    if (pid_ != 0) return;
    setenv("QUORVEL_HOST_ROOT", root_.c_str(), 1);
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDERR_FILENO);
    execv(arguments[0], arguments.data());
    _exit(127);
  }

  ~Hang() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    fs::remove_all(root_);
  }

  // The log's path, once the incident was reported; empty after half a minute without one.
  std::string Log() const {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < end) {
      std::ifstream journal(root_ / "data/log/dravik/events.jsonl");
      std::string line;
      if (std::getline(journal, line)) {
        return FindLogs({root_ / "data/log/reliability/quorvel"}, false).files.at(0);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return "";
  }

 private:
  fs::path root_;
  pid_t pid_ = -1;
};

Incident ReadLog(LogReader* reader, const std::string& path) {
  Incident incident;
  std::string error;
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_TRUE(reader->Read(fd, path, &incident, &error)) << path << error;
  close(fd);
  return incident;
}

constexpr const char* kKinds[] = {"mutex",      "condition", "futex",  "file-lock", "file-read",
                                  "file-write", "socket",    "pipe",   "poll",      "child",
                                  "sleep",      "signal",    "memory", "stopped",   "running"};

// All of them hang at the same time, so that they are waited for once.
class ReasonOfRealHangTest : public testing::TestWithParam<const char*> {
 protected:
  static void SetUpTestSuite() {
    for (const char* kind : kKinds) {
      hangs_.emplace(kind, std::make_unique<Hang>(std::vector<std::string>{HANGS, kind}));
    }
  }
  static void TearDownTestSuite() { hangs_.clear(); }

  static std::map<std::string, std::unique_ptr<Hang>> hangs_;
};

std::map<std::string, std::unique_ptr<Hang>> ReasonOfRealHangTest::hangs_;

TEST_P(ReasonOfRealHangTest, IsNotFound) {
  LogReader reader;
  const Incident incident = ReadLog(&reader, hangs_.at(GetParam())->Log());
  ASSERT_NE(nullptr, incident.Watched());
  const bool needs_kernel = incident.reason.kind == "unknown" && incident.Watched()->state != '\0';
  if (needs_kernel) GTEST_SKIP() << "no kernel stack without privilege: " << incident.reason.text;
  EXPECT_EQ(GetParam(), incident.reason.kind) << incident.reason.text;
  EXPECT_EQ("hangs", incident.program);
}

INSTANTIATE_TEST_SUITE_P(Kinds, ReasonOfRealHangTest, testing::ValuesIn(kKinds),
                         [](const auto& test) {
                           std::string name = test.param;
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

#ifdef SAME_HANGS
// Builds of one program by several compilers and with several optimisations.
std::vector<std::string> Builds() {
  std::vector<std::string> builds;
  std::istringstream list(SAME_HANGS);
  for (std::string path; std::getline(list, path, ',');) builds.push_back(path);
  return builds;
}

TEST(SignatureOfRealHangTest, BuildsDisagree) {
  std::vector<std::unique_ptr<Hang>> hangs;
  for (const std::string& build : Builds()) {
    for (int run = 0; run < 2; ++run) {
      hangs.push_back(std::make_unique<Hang>(std::vector<std::string>{build}));
    }
  }
  LogReader reader;
  for (const auto& hang : hangs) {
    EXPECT_EQ("same_hang: book: mutex: Ledger::Append < Book < main::{lambda}::{lambda}",
              ReadLog(&reader, hang->Log()).signature);
  }
}

TEST(SignatureOfRealHangTest, InlinedCallsAreLostDespiteSymbols) {
  std::vector<std::unique_ptr<Hang>> hangs;
  for (const std::string& build : Builds()) {
    hangs.push_back(std::make_unique<Hang>(std::vector<std::string>{build, "inlined"}));
  }
  for (size_t i = 0; i < hangs.size(); ++i) {
    Symbols symbols({fs::path(Builds()[i]).parent_path().parent_path() / "unstripped"});
    LogReader reader(&symbols);
    const Incident incident = ReadLog(&reader, hangs[i]->Log());
    EXPECT_EQ("same_hang: book: mutex: Settle < Close < main::{lambda}::{lambda}",
              incident.signature)
        << Builds()[i];
    const Frame* const own = FindOwnFrame(incident.Watched()->user);
    ASSERT_NE(nullptr, own);
    EXPECT_EQ(0u, own->source.find("same_hang.cpp:")) << own->source;
  }
}
#endif

}  // namespace
}  // namespace report
