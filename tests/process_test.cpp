// Whole processes, in real seconds: a program that was built against the installed library hangs,
// each time in a device root of its own.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvel/quorvel.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <sstream>

#include "support/test_root.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using test_root::PropertyText;
using test_root::SetProperty;
using testing::AllOf;
using testing::HasSubstr;
using testing::MatchesRegex;

constexpr uint32_t kLogged = QUORVEL_FLAG_LOG | QUORVEL_FLAG_BACKTRACE | QUORVEL_FLAG_SYSTRACE;

struct Result {
  int status;
  std::string out;
  std::string log;
};

// What has to stand before a program of another architecture; nothing in a native build.
std::vector<std::string> EmulatorWords() {
  std::vector<std::string> words;
  std::istringstream list(QUORVEL_TEST_EMULATOR);
  for (std::string word; std::getline(list, word, '|');) words.push_back(word);
  return words;
}

// Runs the client to its end, in the root of this test or in another.
Result RunClient(const std::vector<std::string>& arguments, const std::string& program = "",
                 const std::string& root = "") {
  const std::string out = test_root::Path("/stdout");
  const std::string log = test_root::Path("/stderr");
  std::vector<std::string> words = EmulatorWords();
  words.push_back(program.empty() ? QUORVEL_TEST_CLIENT : program);
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(&word[0]);
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_APPEND;
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), flags, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, log.c_str(), flags, 0600);
  const std::string own_root = getenv("QUORVEL_HOST_ROOT");
  pid_t pid = -1;
  if (!root.empty()) setenv("QUORVEL_HOST_ROOT", root.c_str(), 1);
  EXPECT_EQ(posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ), 0);
  setenv("QUORVEL_HOST_ROOT", own_root.c_str(), 1);
  posix_spawn_file_actions_destroy(&actions);
  Result result = {};
  waitpid(pid, &result.status, 0);
  result.out = test_root::ReadFile(out);
  result.log = test_root::ReadFile(log);
  return result;
}

Result Hang(uint32_t flags, const std::string& file = "", const std::string& program = "") {
  std::vector<std::string> arguments = {"hang", std::to_string(flags), "1"};
  if (!file.empty()) arguments.push_back(file);
  return RunClient(arguments, program);
}

long CalledAfterMillis(const Result& result) {
  std::smatch match;
  return std::regex_search(result.out, match, std::regex("called after ([0-9]+) ms"))
             ? std::stol(match[1])
             : -1;
}

std::string OnlyIncident(const std::string& dir) {
  const std::vector<std::string> names = test_root::List(dir);
  if (names.size() != 1) return "";
  EXPECT_THAT(names[0], MatchesRegex("quorvel@[0-9]{13}\\.log"));
  return test_root::ReadFile(test_root::Path(dir + names[0]));
}

TEST(Process, AHangLeavesItsReasonInAFileAndAnEvent) {
  SetProperty("dravik.event.12.config", "1");
  const std::string file = test_root::Path("/contended");
  const int fd = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(flock(fd, LOCK_EX), 0);
  const Result result = Hang(kLogged, file);
  close(fd);
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.out, AllOf(HasSubstr("update refused: 1"), HasSubstr("exceptions: 1")));
  const std::string incident = OnlyIncident(test_root::kLogDir);
  EXPECT_THAT(incident,
              AllOf(HasSubstr("timeout function: flock\n"), HasSubstr("\nkernel stack tid = "),
                    HasSubstr("(flock+"), HasSubstr("(watched_work+")));
  EXPECT_LT(incident.find("(flock+"), incident.find("(pause")) << "the watched thread comes first";
  EXPECT_THAT(test_root::ReadFile(test_root::Path(test_root::kJournal)),
              HasSubstr("\"command\":\"Z=copy_systrace_to_cache+quorvel+watch_client\",\"message\":"
                        "\"watch_client," +
                        test_root::Path(test_root::kLogDir)));
}

TEST(Process, AVendorProgramUsesTheVendorsDirectoryAndRecord) {
  const std::string program = test_root::Path("/vendor/bin/watch_client");
  fs::create_directories(test_root::Path("/vendor/bin"));
  fs::copy_file(QUORVEL_TEST_CLIENT, program);
  const Result result = Hang(QUORVEL_FLAG_LOG | QUORVEL_FLAG_RECOVERY, "", program);
  EXPECT_TRUE(WIFEXITED(result.status) && WEXITSTATUS(result.status) == 1);
  EXPECT_THAT(OnlyIncident(test_root::kVendorLogDir), HasSubstr(">>> watch_client <<<\n"));
  EXPECT_TRUE(test_root::List(test_root::kLogDir).empty());
  EXPECT_THAT(test_root::List("/dev/__properties__/"),
              testing::ElementsAre(MatchesRegex("odm\\.quorvel\\.rec\\.[0-9]+")));
}

TEST(Process, TheRecoveryLimitHoldsAcrossProcesses) {
  const auto exits_with_record = [](const std::string& start) {
    const Result result = Hang(QUORVEL_FLAG_RECOVERY);
    EXPECT_TRUE(WIFEXITED(result.status) && WEXITSTATUS(result.status) == 1);
    EXPECT_THAT(result.log, HasSubstr("exit process from quorvel"));
    const std::string name = test_root::List("/dev/__properties__/").at(0);
    EXPECT_THAT(PropertyText(name), testing::StartsWith(start));
    return name;
  };
  const std::string name = exits_with_record("1,");
  SetProperty(name, ("4," + std::to_string(time(nullptr))).c_str());
  exits_with_record("5,");
  const std::string record = PropertyText(name);
  const Result result = Hang(QUORVEL_FLAG_RECOVERY);
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.log, HasSubstr("Skip exit, because it has recovery more than 5 times"));
  EXPECT_EQ(PropertyText(name), record);
}

TEST(Process, AnIdleMonitorSleepsUntilTheNextStart) {
  const Result result = RunClient({"idle"});
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.out, HasSubstr("wake-ups while idle: 0\n"));
  EXPECT_GE(CalledAfterMillis(result), 1000);
}

TEST(Process, AWatchOfOneSecondFiresInTime) {
  const Result result = Hang(0);
  EXPECT_GE(CalledAfterMillis(result), 1000);
  EXPECT_LE(CalledAfterMillis(result), 2500);
  EXPECT_TRUE(test_root::List(test_root::kLogDir).empty());
  EXPECT_THAT(result.log, HasSubstr("not set recovery flag of quorvel"));
}

TEST(Process, ARootThatIsNotThereCostsOnlyTheFile) {
  const std::string nowhere = test_root::Path("/nowhere");
  const struct {
    std::string root;
    std::string log_dir;
    std::string complaint;
  } cases[] = {{nowhere, nowhere + test_root::kLogDir, ""},
               {"relative/path", test_root::kLogDir, "is not an absolute path: relative/path"}};
  for (const auto& c : cases) {
    const Result result = RunClient({"hang", "1", "1"}, "", c.root);
    EXPECT_EQ(result.status, 0);
    EXPECT_GT(CalledAfterMillis(result), 0);
    EXPECT_THAT(result.log, HasSubstr("log path " + c.log_dir + ", not ready, skip logging..."));
    EXPECT_THAT(result.log, HasSubstr(c.complaint));
    EXPECT_THAT(result.log, HasSubstr("get dravik config fail, skip..."));
  }
}

}  // namespace
