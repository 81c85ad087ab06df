// What another process may put into the log directory, and what a client's names may hold.

#include <sys/stat.h>

#include "incident_fixture.h"
#include "log/log_file.h"
#include "support/emulated.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;

class Hostile : public IncidentTest {
 protected:
  // The exit code of the program that ran, its standard output and its standard error.
  struct ClientRun {
    int code;
    std::string out;
    std::string err;
  };

  static ClientRun RunClient(const std::string& program, const std::string& watch,
                             const std::string& root = test_root::Path(""), uid_t uid = geteuid()) {
    const std::string out = test_root::Path("/out"), err = test_root::Path("/err");
    const std::string client = test_root::Path(kClient);
    const int code = InChild([&] {
      if (freopen(out.c_str(), "w", stdout) == nullptr) _exit(kSkipped);
      if (freopen(err.c_str(), "w", stderr) == nullptr) _exit(kSkipped);
      setenv("QUORVEL_HOST_ROOT", root.c_str(), 1);
      if (uid != geteuid() && setuid(uid) != 0) _exit(kSkipped);
      execl(client.c_str(), program.c_str(), watch.c_str(), nullptr);
      _exit(127);
    });
    return {code, test_root::ReadFile(out), test_root::ReadFile(err)};
  }
  static void MakeClient() {
    test_root::RemoveTree(kClient);
    fs::copy(INCIDENT_CLIENT, test_root::Path(kClient));
    fs::permissions(test_root::Path(""), fs::perms(0755));
    EmptyLogDir();
  }
  static void EmptyLogDir() {
    test_root::MakeEmptyDir(test_root::kLogDir);
    fs::permissions(Dir(), fs::perms(0777));
  }
  static std::string OnlyLog() {
    const Texts names = test_root::List(test_root::kLogDir);
    return names.size() == 1 ? test_root::ReadFile(Dir() + names[0]) : "";
  }

  static constexpr char kClient[] = "/incident_client";
  static constexpr char kRan[] = "called\nstill running\n";
};

TEST_F(Hostile, DirectoryDoesNotStopAnIncidentOrLeadItOut) {
  const std::string not_ready = "log path " + Dir() + ", not ready, skip logging...\n";
  const struct {
    const char* preparation;  // by the shell, in the directory; $log is the next file up to its
                              // last digit
    Texts failures;
    bool has_log;
  } kCases[] = {
      {"rm -r $PWD", {not_ready}, false},
      {"rm -r $PWD; touch $PWD", {not_ready}, false},
      {"rm -r $PWD; ln -s $out $PWD", {not_ready}, false},
      {"mkfifo .lock", {}, true},
      {"mkdir .lock", {"GetStorageLock fail, 21\n"}, true},
      {"ln -s $out/new .lock", {"GetStorageLock fail, 40\n"}, true},
      {"ln -s $out/precious .lock", {}, true},
      {"for i in 0 1 2 3; do ln -s $out/new ${log}$i.log; done", {}, false},
      {"ln -s $out/precious ${log}0.log; mkfifo ${log}1.log; mkdir ${log}2.log", {}, true},
      {"for i in a b c d e f g h i j k l; do mkfifo $i; ln -s $out/precious $i$i; done", {}, true},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.preparation);
    test_root::MakeEmptyDir("/outside");
    test_root::WriteFile(test_root::Path("/outside/precious"), "untouched");
    EmptyLogDir();
    FillWithOldLogs();
    const std::string shell = "cd " + Dir() + "; out=" + test_root::Path("/outside") +
                              "; log=quorvel@" + std::to_string(now_ + 61) + "00; ";
    ASSERT_EQ(system((shell + c.preparation).c_str()), 0);
    Respond(QUORVEL_FLAG_LOG);
    EXPECT_EQ(calls_, 1);
    EXPECT_THAT(Failures(), testing::ElementsAreArray(c.failures));
    EXPECT_LE(pauses_, 4);
    EXPECT_EQ(WholeHeader(QuorvelLastLogPath()), c.has_log);
    EXPECT_TRUE(c.failures == Texts{not_ready} || LogFiles() <= 10);
    EXPECT_THAT(test_root::List("/outside/"), ElementsAre("precious"));
    EXPECT_EQ(test_root::ReadFile(test_root::Path("/outside/precious")), "untouched");
  }
}

TEST_F(Hostile, NamesOfFilesAreCountedAndRemovedAsTheyAre) {
  const Texts names = {"!" + std::string(254, 'x'), "!%n%s%n", "!\nname", "!\xff\xfe"};
  Texts expected = {"delete old0\n"};
  for (const std::string& name : names) {
    test_root::WriteFile(Dir() + name, "");
    expected.push_back("delete " + name + "\n");
  }
  Respond(QUORVEL_FLAG_LOG);
  Texts deleted;
  for (const LogLine& line : log_.Lines(ANDROID_LOG_INFO)) deleted.push_back(line.text);
  EXPECT_THAT(deleted, testing::UnorderedElementsAreArray(expected));
  EXPECT_TRUE(WholeHeader(LogPath()));
  EXPECT_EQ(LogFiles(), 10);
}

TEST_F(Hostile, NamesOfProgramAndWatchAreWrittenAsTheyAreOrTheirLineIsDropped) {
  SKIP_UNDER_EMULATION("a program of this architecture cannot be started");
  const std::string too_long(10000, 'x');
  const std::pair<std::string, std::string> kNames[] = {// and as the journal has it
                                                        {"%s%n%p%1000000d", "%s%n%p%1000000d"},
                                                        {"two\nlines", "two\\u000alines"},
                                                        {"\xff\xc0\xaf", "\\ufffd\\ufffd\\ufffd"},
                                                        {"\"quoted\\", "\\\"quoted\\\\"},
                                                        {too_long, too_long}};
  MakeClient();
  for (const auto& [name, in_journal] : kNames) {
    SCOPED_TRACE(name.substr(0, 40));
    EmptyLogDir();
    test_root::MakeEmptyDir("/data/log/dravik");
    const ClientRun run = RunClient(name, name);
    EXPECT_EQ(run.code, 0);
    EXPECT_EQ(run.out, kRan);
    const std::string log = OnlyLog();
    EXPECT_THAT(log, HasSubstr("Build fingerprint: the/build\n"));
    const bool fits = name != too_long;
    EXPECT_EQ(log.find("timeout function: " + name + "\n") != std::string::npos, fits);
    EXPECT_EQ(log.find(">>> " + name + " <<<\n") != std::string::npos, fits);
    EXPECT_EQ(run.err.find("QuorvelPrintLine: cannot vsnprintf ") == std::string::npos, fits);
    const std::string event = test_root::ReadFile(test_root::Path(test_root::kJournal));
    EXPECT_EQ(event.find('\n'), event.size() - 1);
    EXPECT_THAT(event, HasSubstr("\"Z=copy_systrace_to_cache+quorvel+" + in_journal +
                                 "\",\"message\":\"" + in_journal + "," + Dir()));
  }
}

TEST_F(Hostile, RootThatDoesNotExistIsADeviceWithNothingOnIt) {
  SKIP_UNDER_EMULATION("a program of this architecture cannot be started");
  MakeClient();
  const std::string root = test_root::Path("/nowhere");
  const ClientRun run = RunClient("client", "work", root);
  EXPECT_EQ(run.out, kRan);
  EXPECT_THAT(run.err, HasSubstr("log path " + root + test_root::kLogDir + ", not ready, skip "));
  EXPECT_THAT(run.err, HasSubstr("QUORVEL : get dravik config fail, skip...\n"));
  EXPECT_FALSE(fs::exists(root));
}

TEST_F(Hostile, RootIsIgnoredByASetUserIdProgram) {
  SKIP_UNDER_EMULATION("a program of this architecture cannot be started");
  if (geteuid() != 0) GTEST_SKIP() << "only root can make a set-user-id copy of another user";
  constexpr uid_t kNobody = 65534;
  MakeClient();
  ASSERT_EQ(RunClient("client", "work", test_root::Path(""), kNobody).out, kRan);
  EXPECT_THAT(OnlyLog(), HasSubstr("timeout function: work\n"));  // heeded by any other program

  EmptyLogDir();
  ASSERT_EQ(chown(test_root::Path(kClient).c_str(), kNobody, kNobody), 0);
  ASSERT_EQ(chmod(test_root::Path(kClient).c_str(), 04755), 0);
  const ClientRun run = RunClient("client", "work");
  if (run.out == kRan) GTEST_SKIP() << "set-user-id has no effect where the tests run";
  EXPECT_EQ(run.out, std::string("set-user-id\n") + kRan);
  EXPECT_THAT(run.err, testing::Not(HasSubstr(test_root::Path(""))));
  EXPECT_THAT(test_root::List(test_root::kLogDir), testing::IsEmpty());
}

}  // namespace
