// Whole incidents, one a call, in a log directory that already holds ten files: system calls fail,
// the disk is full, processes are killed, another process has been at the directory, names are odd.

#include <device_path.h>
#include <kelvane.h>
#include <poll.h>
#include <sched.h>
#include <sys/auxv.h>
#include <sys/mount.h>
#include <sys/system_properties.h>

#include <filesystem>
#include <random>

#include "core/recovery_limit.h"
#include "log/log_file.h"
#include "support/interposer.h"
#include "support/library_test.h"
#include "support/surroundings.h"

namespace {

namespace fs = std::filesystem;
using test_root::ReadFile;

constexpr uint32_t kLog = QUORVEL_FLAG_LOG;
// Under emulation a dump of all threads takes five seconds, and there are thousands.
const uint32_t kMost = QUORVEL_FLAG_LOG | (Emulated() ? 0 : QUORVEL_FLAG_BACKTRACE);
const int kErrors[] = {EINTR,  ENOSPC, EDQUOT, EROFS,  EMFILE, ENFILE,
                       EACCES, EIO,    ESTALE, ENOMEM, EPERM};

// Of the first thread, which waits for the test's. Time stands still but between incidents; pauses
// are counted, not slept.
class Incident : public LibraryTest {
 protected:
  Incident() {
    fakes.time = [] { return now_; };
    fakes.gettimeofday = [this](timeval* now) { return *now = {now_, 1000 * millisecond_++}, 0; };
    fakes.usleep = [this](useconds_t) { return ++pauses_, 0; };
    FillLogDir();
  }

  void FillLogDir() {
    test_root::MakeEmptyDir(test_root::kLogDir);
    for (int i = 0; i < 10; ++i) test_root::WriteFile(dir_ + "old" + std::to_string(i), "");
  }

  // So long after the last one that the rate limit lets it through.
  void Respond(uint32_t flags, Fault* fault = nullptr, const std::string& name = "work") {
    now_ += 61;
    log_path_ = dir_ + "quorvel@" + std::to_string(now_) + "000.log";
    millisecond_ = calls_ = pauses_ = 0;
    log_.Clear();
    test_root::WriteFile(journal_, "");
    const Function callback = [this] { ++calls_; };
    t_fault = fault;
    LibraryTest::Respond(flags, callback, name.c_str(), getpid());
    t_fault = nullptr;
    EXPECT_EQ(calls_, 1);
  }

  // What the last incident logged as an error, without what every one does and without stacks.
  Texts Failures() const {
    Texts texts;
    const char* const usual = "@(Trigger 0x20a *|not set recovery *|\ntid = *|  #*|[[]*)";
    for (std::string text : log_.Lines("E/")) {
      text.erase(0, text.find(": ") + 2);
      // A thread that runs in user mode at the moment has an empty kernel stack.
      if (text.empty() || fnmatch(usual, text.c_str(), FNM_EXTMATCH) == 0) continue;
      const size_t at = text.find(log_path_);
      if (at != std::string::npos) text.replace(at, log_path_.size(), "LOG");
      texts.push_back(text);
    }
    return texts;
  }

  long LogFiles() const {
    const auto is_log = [](const fs::directory_entry& entry) {
      return fs::is_regular_file(entry.symlink_status()) &&
             entry.path().filename().c_str()[0] != '.';
    };
    return std::count_if(fs::directory_iterator(dir_), {}, is_log);
  }
  static bool HasHeader(const std::string& path) {
    return ReadFile(path).find("\n>>> unit_tests <<<\n") != std::string::npos;
  }
  bool HasEvent() const { return Journal().find("}\n") != std::string::npos; }

  // Whatever went wrong before, the next incident has its file, within the limit; a lock that was
  // left behind goes after five looks at it.
  void ExpectNextIsWell() {
    Respond(kLog);
    EXPECT_EQ(Failures(), Texts{});
    EXPECT_TRUE(HasHeader(log_path_) && HasEvent());
    EXPECT_LE(LogFiles(), 10);
    EXPECT_FALSE(fs::exists(dir_ + ".lock"));
    EXPECT_THAT(pauses_, testing::AnyOf(0, 4));
  }

  // One incident for each error, in which every such call fails with it: the messages, in which {n}
  // stands for its number and {s} for its text, and no other effect.
  void ExpectWhileFailing(const char* call, const char* target, const Texts& messages,
                          bool has_text = true, bool has_event = true) {
    for (const int error : kErrors) {
      if (error == EINTR) continue;
      SCOPED_TRACE(std::string(call) + " " + target + ": " + strerror(error));
      Fault fault = {call, target, error};
      Respond(kMost, &fault);
      if (Emulated() && fault.struck == nullptr) continue;  // a call for the stacks
      EXPECT_NE(fault.struck, nullptr);
      Texts expected = messages;
      for (std::string& text : expected) {
        Replace(&text, "{n}", std::to_string(error));
        Replace(&text, "{s}", strerror(error));
      }
      EXPECT_EQ(Failures(), expected);
      EXPECT_EQ(HasHeader(log_path_), has_text);
      EXPECT_EQ(HasEvent(), has_event);
      ExpectNextIsWell();
    }
  }

  // One incident in a directory that the shell has prepared; $log is the path of the next file up
  // to its last digit, $out a directory that is none of ours.
  void ExpectAfter(const std::string& preparation, const Texts& failures, bool has_log) {
    SCOPED_TRACE(preparation);
    test_root::MakeEmptyDir("/outside");
    const std::string out = test_root::Path("/outside");
    test_root::WriteFile(out + "/precious", "untouched");
    FillLogDir();
    const std::string log = "quorvel@" + std::to_string(now_ + 61) + "00";
    const std::string shell = "cd " + dir_ + "; out=" + out + "; log=" + log + "; ";
    ASSERT_EQ(system((shell + preparation).c_str()), 0);
    Respond(kLog);
    EXPECT_EQ(Failures(), failures);
    EXPECT_LE(pauses_, 4);
    EXPECT_EQ(HasHeader(QuorvelLastLogPath()), has_log);
    EXPECT_TRUE(failures == not_ready_ || LogFiles() <= 10);
    EXPECT_EQ(test_root::List("/outside/"), Texts{"precious"});
    EXPECT_EQ(ReadFile(out + "/precious"), "untouched");
    umount2(dir_.c_str(), MNT_DETACH);
  }

  static void Replace(std::string* text, const std::string& what, const std::string& by) {
    const size_t at = text->find(what);
    if (at != std::string::npos) text->replace(at, what.size(), by);
  }

  static inline time_t now_ = 1763315480;  // the rate limit lives as long as the process
  const std::string dir_ = test_root::Path(test_root::kLogDir);
  const Texts not_ready_ = {"log path " + dir_ + ", not ready, skip logging...\n"};
  std::string log_path_;
  int millisecond_ = 0, calls_ = 0, pauses_ = 0;
};
using FaultyCall = Incident;
using FaultyExit = Incident;
using Hostile = Incident;

TEST_F(FaultyCall, AnySingleOneDoesNotStopTheIncidentAndAnInterruptedOneIsMadeAgain) {
  const auto descriptors = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), {});
  };
  Respond(kMost);  // the first one keeps what it has learnt
  const long descriptors_before = descriptors();
  for (const int error : kErrors) {
    const bool interrupted = error == EINTR;
    bool struck = true;
    for (int call = 0; struck && !HasFailure(); ++call) {
      Fault fault = {interrupted ? "@(close|open|openat|read|write)" : "*", "*", error, call, 1};
      Respond(kMost, &fault);
      struck = fault.struck != nullptr;
      const std::string name = struck ? fault.struck : "none";
      SCOPED_TRACE(name + " " + std::to_string(call) + ": " + strerror(error));
      EXPECT_TRUE(struck || call > (Emulated() ? 12 : 20)) << "too few calls come here";
      EXPECT_EQ(descriptors(), descriptors_before);
      EXPECT_LE(LogFiles(), 11);  // the eleventh where the clean-up cannot list or remove
      const bool well = Failures().empty() && HasHeader(log_path_) && HasEvent();
      const bool told = !Failures().empty() || name == "write";
      EXPECT_TRUE(well || (!interrupted && (told || HasHeader(log_path_))));
      ExpectNextIsWell();
    }
  }
}

TEST_F(FaultyCall, OnTheDirectoryOrTheFileLeavesTheIncidentWithoutText) {
  ExpectWhileFailing("lstat", "*/quorvel", not_ready_, false);
  ExpectWhileFailing("open", "*.log", {"OpenLogPath: open LOG fail, {n}\n"}, false);
  ExpectWhileFailing("write", "*.log", {}, false);
}

TEST_F(FaultyCall, OnTheLockLeavesTheIncidentWithoutIt) {
  ExpectWhileFailing("@(access|unlink)", "*/.lock", {});
  ExpectWhileFailing("open", "*/.lock", {"GetStorageLock fail, {n}\n"});
}

TEST_F(FaultyCall, OfTheCleanUpLeavesTheFilesAsTheyAre) {
  ExpectWhileFailing("open", "*/quorvel", {"CleanUpOldLog scandir fail, {n}\n"});
  ExpectWhileFailing("scandirat", "*", {"CleanUpOldLog scandir fail, {n}\n"});
  ExpectWhileFailing("unlinkat", "*", {});
}

TEST_F(FaultyCall, OnTheEventsConfigurationSendsNone) {
  const Texts no_config = {"get dravik config fail, skip...\n"};
  ExpectWhileFailing("open", "*.12.config", no_config, true, false);
  ExpectWhileFailing("read", "*.12.config", no_config, true, false);
}

TEST_F(FaultyCall, OfTheListOfThreadsIsReportedForBothKindsOfStacks) {
  const std::string pid = std::to_string(getpid()), no_tids = "Fail to get tids in pid " + pid;
  const Texts no_process = {"failed to open /proc/" + pid + ": {s}", no_tids + "\n"};
  const Texts no_tasks = {"failed to open task directory: {s}", no_tids + "\n"};
  const auto twice = [](Texts texts) {
    texts.insert(texts.end(), {texts[0], texts[1]});
    return texts;
  };
  ExpectWhileFailing("open", "/proc/+([0-9])", twice(no_process));
  ExpectWhileFailing("openat", "task", twice(no_tasks));
  ExpectWhileFailing("fdopendir", "*", twice(no_tasks));
}

TEST_F(FaultyCall, OnAStackIsReportedForIt) {
  const std::string tid = std::to_string(getpid());
  const std::string no_unwind = "Unwind failed: tid = " + tid + ": ";
  const std::string no_signal = "_unwind_locked: cannot send signal 33 to " + tid + ", {s}";
  ExpectWhileFailing("malloc", "*", {"malloc buff failed\n"});
  ExpectWhileFailing("open", "/proc/self/task/*", {"get stack fail, skip...\n"});
  ExpectWhileFailing("open", "*/maps", {no_unwind + "Fail to parse maps\n"});
  ExpectWhileFailing("rt_sigaction", "*",
                     {"_unwind_locked: sigaction failed: {s}", no_unwind + "\n"});
  ExpectWhileFailing("tgkill", "*", {no_signal, no_unwind + "\n"});
}

TEST_F(FaultyCall, WhileAPropertyIsSetLeavesItAsItWas) {
  const std::string name = "a.name";
  for (const char* call : {"open", "write", "fsync", "rename"})
    RunInChild([&] {  // as a process reports only its first such failure
      test_root::SetProperty(name, "old");
      Fault fault = {call, "*/__properties__/*", EIO};
      t_fault = &fault;
      const int result = __system_property_set(name.c_str(), "new");
      t_fault = nullptr;
      EXPECT_EQ(result, -1) << call;
      EXPECT_EQ(fault.struck, call);
      EXPECT_EQ(test_root::PropertyText(name), "old");
      const std::string left = ".new." + std::to_string(getpid()) + "." + std::to_string(gettid());
      EXPECT_EQ(test_root::PropertyText(left), "");
    });
}

TEST_F(FaultyCall, AWriteOfAPropertyThatEndsHalfWayGoesOnThere) {
  Fault fault = {"write", "*", kHalf};
  t_fault = &fault;
  EXPECT_EQ(__system_property_set("a.name", "whole value"), 0);
  t_fault = nullptr;
  EXPECT_EQ(test_root::PropertyText("a.name"), "whole value");
}

// Its removal seems to come too late each time.
TEST_F(FaultyCall, ALockMadeAgainAndAgainHoldsAnIncidentUpOnlyForHalfASecond) {
  test_root::WriteFile(dir_ + ".lock", "");
  Fault fault = {"unlink", "*/.lock", ENOENT};
  Respond(kLog, &fault);
  EXPECT_EQ(Failures(), Texts{"GetStorageLock fail, 16\n"});
  EXPECT_THAT(pauses_ * 5, testing::AllOf(testing::Ge(500), testing::Le(520)));
  EXPECT_TRUE(HasHeader(log_path_));
  ExpectNextIsWell();
}

TEST_F(FaultyExit, OfTwentyProcessesKilledAnywhereLeavesNoLockNoTornRecordAndNotTooManyFiles) {
  const std::string record_name = QuorvelRecoveryRecordName(false, "unit_tests");
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (int killed = 0; killed < 200; ExpectNextIsWell()) {
    test_root::SetProperty(record_name, "0,1000000000");
    pid_t children[20];
    for (pid_t& child : children) {
      now_ += 2000;  // the recovery limit lets every one exit
      const int error = random() % 4 != 0 ? kDie : kErrors[random() % std::size(kErrors)];
      Fault fault = {"*", "*", error, static_cast<int>(random() % 60), 1};
      child = fork();
      if (child != 0) continue;
      fakes = Fakes();
      fakes.time = [] { return now_; };
      Respond(kLog | QUORVEL_FLAG_RECOVERY, &fault);
      _exit(1);  // another's exit, later by its clock, has forbidden this one
    }
    poll(nullptr, 0, static_cast<int>(random() % 10));
    for (const pid_t child : children) {
      // Each may have listed the directory before the others made their files.
      EXPECT_LE(LogFiles(), 9 + 20);
      const std::string record = test_root::PropertyText(record_name);
      EXPECT_THAT(record, testing::MatchesRegex("[0-9]+,1[0-9]{9}"));
      kill(child, SIGKILL);
      const int status = StatusOf(child);
      EXPECT_THAT(status, testing::AnyOf(-SIGKILL, 1));
      killed += status == -SIGKILL;
    }
  }
}

TEST_F(Hostile, WhatIsNoDirectoryIsNotReady) {
  for (const char* preparation : {"true", "touch $PWD", "ln -s $out $PWD"}) {
    ExpectAfter("rm -r $PWD; " + std::string(preparation), not_ready_, false);
  }
}

TEST_F(Hostile, LockOfAnotherKindIsNotFollowedOut) {
  ExpectAfter("mkfifo .lock", {}, true);
  ExpectAfter("mkdir .lock", {"GetStorageLock fail, 21\n"}, true);
  ExpectAfter("ln -s $out/new .lock", {"GetStorageLock fail, 40\n"}, true);
  ExpectAfter("ln -s $out/precious .lock", {}, true);
}

TEST_F(Hostile, NameThatIsTakenIsNotFollowedOutOrOverwritten) {
  ExpectAfter("for i in 0 1 2 3; do ln -s $out/new ${log}$i.log; done", {}, false);
  ExpectAfter("ln -s $out/precious ${log}0.log; mkfifo ${log}1.log; mkdir ${log}2.log", {}, true);
}

TEST_F(Hostile, EntriesOfOddKindsAndNamesDoNotDisturbTheCleanUp) {
  ExpectAfter("for i in a b c d e f g h i j k l; do mkfifo $i; ln -s $out/precious $i$i; done", {},
              true);
  ExpectAfter("touch '!%n%s%n' '!\nname' '!\xff\xfe' $(printf '!%0254d' 0)", {}, true);
}

TEST_F(Hostile, DiskThatIsFullOrReadOnlyLosesNoMoreThanTheFile) {
  if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    GTEST_SKIP() << "nobody may mount for himself alone here";
  const std::string mount = "mount -t tmpfs x $PWD; cd $PWD; mount -o remount,";
  ExpectAfter(mount + "size=64k $PWD; yes 2> /dev/null > .full; true", {}, false);
  // The log gets the inode of an old one.
  ExpectAfter(mount + "nr_inodes=20 $PWD; touch $(seq 30) 2> /dev/null; true",
              {"GetStorageLock fail, 28\n"}, true);
  ExpectAfter(mount + "ro $PWD", {"GetStorageLock fail, 30\n", "OpenLogPath: open LOG fail, 30\n"},
              false);
}

TEST_F(Hostile, NamesOfProgramAndWatchAreWrittenAsTheyAreOrTheirLineIsDropped) {
  const std::string too_long(10000, 'x');
  for (const std::string& name : Texts{"%s%n%p%1000000d", "two\nlines", "\xff\xc0\xaf", too_long}) {
    SCOPED_TRACE(name.substr(0, 40));
    fakes.getprogname = [&name] { return name.c_str(); };
    Respond(kLog, nullptr, name);
    const std::string log = ReadFile(log_path_), event = Journal();
    const bool fits = name != too_long;
    EXPECT_EQ(log.find("timeout function: " + name + "\n") != std::string::npos, fits);
    EXPECT_EQ(log.find(">>> " + name + " <<<\n") != std::string::npos, fits);
    EXPECT_NE(log_.Has("QuorvelPrintLine: cannot vsnprintf "), fits);
    EXPECT_EQ(event.find('\n'), event.size() - 1);
    EXPECT_THAT(event, testing::HasSubstr(fits ? log_path_ + "\"}" : too_long + "," + log_path_));
  }
}

TEST_F(Hostile, ProcOfAnotherPidNamespaceGivesNoStacksOfStrangers) {
  SKIP_UNDER_EMULATION("the emulator makes a /proc of its own");
  constexpr int kNoNamespace = 77;
  const auto in_namespace = [&] {
    Respond(kMost);
    const std::string foreign = "/proc/1 is another process, /proc belongs to another pid namesp";
    const Texts failures = Failures();
    EXPECT_THAT(failures, testing::Contains(testing::StartsWith(foreign)).Times(2));
    EXPECT_THAT(failures, testing::Contains("Fail to get tids in pid 1\n").Times(2));
    EXPECT_THAT(ReadFile(log_path_), testing::Not(testing::HasSubstr("tid = ")));
    char stack[4096];
    EXPECT_NE(DravikGetStack(std::stoi(fs::read_symlink("/proc/self")), stack), 0);
  };
  const int status = StatusInChild(
      [&] { _exit(unshare(CLONE_NEWPID) != 0 ? kNoNamespace : StatusInChild(in_namespace)); });
  if (status == kNoNamespace) GTEST_SKIP() << "only root can make a pid namespace here";
  EXPECT_EQ(status, 0);
}

// Runs itself, as a program of nobody's.
TEST_F(Hostile, RootVariableIsIgnoredByASetUserIdProgram) {
  const bool secure = getauxval(AT_SECURE) != 0, ignored = DevicePath("/data") == "/data";
  if (getenv("QUORVEL_TEST_CLIENT") != nullptr) _exit(2 * secure + ignored);
  SKIP_UNDER_EMULATION("the kernel does not start such programs");
  if (geteuid() != 0) GTEST_SKIP() << "only root can make a set-user-id copy of another user";
  const auto run = [](const std::string& mode) {
    const std::string shell = "cd " + test_root::Path("") + "; chmod 755 .; cp /proc/" +
                              std::to_string(getpid()) + "/exe client; chown 65534 client; chmod " +
                              mode +
                              " client; QUORVEL_TEST_CLIENT=1 ./client --gtest_filter=*.Root*";
    return WEXITSTATUS(system(shell.c_str()));
  };
  EXPECT_EQ(run("755"), 0);
  const int result = run("4755");
  if (result == 0) GTEST_SKIP() << "set-user-id has no effect where the tests run";
  EXPECT_EQ(result, 3);
}

}  // namespace
