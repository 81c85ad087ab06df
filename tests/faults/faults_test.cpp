// Incidents whose system calls fail, whose disk is full, whose process is killed.

#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>

#include <fstream>
#include <map>
#include <random>
#include <set>

#include "core/recovery_limit.h"
#include "incident_fixture.h"
#include "interposer.h"
#include "support/emulated.h"
#include "support/parked_thread.h"

namespace {

using Errors = std::vector<int>;
using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr uint32_t kLog = QUORVEL_FLAG_LOG;
constexpr uint32_t kStacks = QUORVEL_FLAG_LOG | QUORVEL_FLAG_BACKTRACE;
constexpr uint32_t kRecover = QUORVEL_FLAG_LOG | QUORVEL_FLAG_RECOVERY;
constexpr char kStore[] = "/dev/__properties__/";
constexpr char kTraceMarker[] = "/sys/kernel/tracing/trace_marker";

const Errors kAll = {ENOSPC, EDQUOT, EROFS, EMFILE, ENFILE, EACCES, EINTR, EIO, ESTALE};
const Errors kCreate = {ENOSPC, EDQUOT, EROFS, EMFILE, ENFILE, EACCES, EIO, ESTALE};
const Errors kOpen = {EMFILE, ENFILE, EACCES, EIO, ESTALE};
const Errors kWrite = {ENOSPC, EDQUOT, EIO, ESTALE};
const Errors kClose = {EINTR, EIO, ENOSPC, EDQUOT};
const Errors kRemove = {EACCES, EROFS, EIO, ESTALE};

class FaultyCall : public IncidentTest {
 protected:
  FaultyCall() {
    tid_ = thread_.tid();
    test_root::SetProperty("debug.atrace.tags.enableflags", "0x800");
    Respond(kStacks);  // the first one keeps what it has learnt
    descriptors_ = Descriptors();
  }
  static long Descriptors() {
    const std::filesystem::directory_iterator open("/proc/self/fd");
    return std::distance(begin(open), end(open));
  }
  void RespondUnder(const Fault& fault, uint32_t flags, int* faulty_calls) {
    test_root::WriteFile(test_root::Path(test_root::kJournal), "");
    test_root::WriteFile(test_root::Path(kTraceMarker), "");
    {
      ScopedFault armed(fault);
      Respond(flags);
      *faulty_calls = armed.calls();
    }
    EXPECT_EQ(calls_, 1);
    EXPECT_EQ(Descriptors(), descriptors_);
    EXPECT_LE(LogFiles(), 11);  // the eleventh where the clean-up cannot list or remove
  }
  static long Lines(const char* path) {
    const std::string text = test_root::ReadFile(test_root::Path(path));
    return std::count(text.begin(), text.end(), '\n');
  }

  ParkedThread thread_{[](const std::atomic<bool>& stop) {
    while (!stop) poll(nullptr, 0, 10);
  }};
  long descriptors_ = 0;
};

TEST_F(FaultyCall, AnySingleOneWithAnyErrnoDoesNotStopTheIncident) {
  SKIP_UNDER_EMULATION("its own thread costs each of some thousand incidents 5 s");
  int calls = 0;
  RespondUnder({"*", "", 0, INT_MAX}, kStacks, &calls);
  ASSERT_GT(calls, 50);
  for (const int error : kAll) {
    for (int i = 0, ignored; i < calls && !HasFailure(); ++i) {
      SCOPED_TRACE("call " + std::to_string(i) + ": " + strerror(error));
      RespondUnder({"*", "", error, i, 1}, kStacks, &ignored);
      ExpectNextIncidentIsWell();
    }
  }
}

enum Outcome { kNoFile, kNoText, kWhole };

struct Row {
  const char* call;
  const char* target;
  Errors errors;
  uint32_t flags;
  Outcome outcome;
  Texts messages;  // {dir}, {log}, {pid}, {tid}, {errno} and {text} stand for theirs
};

const Texts kNotReady = {"log path {dir}, not ready, skip logging...\n"};
const Texts kNoLock = {"GetStorageLock fail, {errno}\n"};
const Texts kNoList = {"CleanUpOldLog scandir fail, {errno}\n"};
const Texts kNoLog = {"OpenLogPath: open {log} fail, {errno}\n"};
const Texts kNoConfig = {"get dravik config fail, skip...\n"};
const Texts kNoStack = {"get stack fail, skip...\n"};
const Texts kNoMemory = {"malloc buff failed\n"};
const Texts kNoMaps = {"Unwind failed: tid = {tid}: Fail to parse maps\n"};
const Texts kNoHandler = {"_unwind_locked: sigaction failed: {text}",
                          "Unwind failed: tid = {tid}: \n"};
const Texts kNoSignal = {"_unwind_locked: cannot send signal 33 to {tid}, {text}",
                         "Unwind failed: tid = {tid}: \n"};
const std::string kNoTids = "Fail to get tids in pid {pid}\n";  // for each kind of stacks
const Texts kNoProcess = {"failed to open /proc/{pid}: {text}", kNoTids,
                          "failed to open /proc/{pid}: {text}", kNoTids};
const Texts kNoTasks = {"failed to open task directory: {text}", kNoTids,
                        "failed to open task directory: {text}", kNoTids};

const Row kTable[] = {
    {"lstat", "/quorvel", {EACCES, EIO, ESTALE}, kLog, kNoFile, kNotReady},
    {"access", "", {EACCES, EIO, ESTALE}, kLog, kWhole, {}},
    {"open", "/.lock", kCreate, kLog, kWhole, kNoLock},
    {"close", "/.lock", kClose, kLog, kWhole, {}},
    {"unlink", "/.lock", kRemove, kLog, kWhole, {}},
    {"open", "/quorvel", kOpen, kLog, kWhole, kNoList},
    {"scandirat", "", {ENOMEM, EIO, ESTALE}, kLog, kWhole, kNoList},
    {"unlinkat", "", kRemove, kLog, kWhole, {}},
    {"open", ".log", kCreate, kLog, kNoFile, kNoLog},
    {"fchmod", ".log", {EROFS, EIO, EPERM}, kLog, kWhole, {}},
    {"write", ".log", kWrite, kStacks, kNoText, {}},
    {"fsync", ".log", kWrite, kLog, kWhole, {}},
    {"close", ".log", kClose, kLog, kWhole, {}},
    {"open", "event.12.config", kOpen, kLog, kWhole, kNoConfig},
    {"read", "event.12.config", {EIO, ESTALE}, kLog, kWhole, kNoConfig},
    {"open", "events.jsonl", kCreate, kLog, kWhole, {}},
    {"write", "events.jsonl", kWrite, kLog, kWhole, {}},
    {"open", "trace_marker", kOpen, kLog, kWhole, {}},
    {"write", "trace_marker", kWrite, kLog, kWhole, {}},
    {"open", "/proc/{pid}", kOpen, kStacks, kWhole, kNoProcess},
    {"openat", "task", kOpen, kStacks, kWhole, kNoTasks},
    {"fdopendir", "/task", {ENOMEM}, kStacks, kWhole, kNoTasks},
    {"readdir", "", {EIO}, kStacks, kWhole, {}},
    {"malloc", "", {ENOMEM}, kStacks, kWhole, kNoMemory},
    {"open", "/stack", kOpen, kStacks, kWhole, {}},
    {"open", "*/self/task/", kOpen, kStacks, kWhole, kNoStack},
    {"prctl", "", {EPERM}, kStacks, kWhole, {}},
    {"open", "/maps", kOpen, kStacks, kWhole, kNoMaps},
    {"process_vm_readv", "", {EPERM, ENOSYS}, kStacks, kWhole, {}},
    {"rt_sigaction", "", {EPERM}, kStacks, kWhole, kNoHandler},
    {"tgkill", "", {EAGAIN, EPERM}, kStacks, kWhole, kNoSignal},
};

Texts Filled(Texts texts, const std::map<std::string, std::string>& values) {
  for (std::string& text : texts) {
    for (const auto& [name, value] : values) {
      const size_t at = text.find(name);
      if (at != std::string::npos) text.replace(at, name.size(), value);
    }
  }
  return texts;
}

TEST_F(FaultyCall, ThatLastsGivesItsMessagesAndNoOtherEffectAndAnInterruptedOneNone) {
  SKIP_UNDER_EMULATION("its own thread costs each incident with stacks 5 s");
  const std::string pid = std::to_string(getpid());
  for (const Row& row : kTable) {
    const std::string target = Filled({row.target}, {{"{pid}", pid}})[0];
    int faulty_calls = 0;
    for (const int error : row.errors) {
      SCOPED_TRACE(std::string(row.call) + " " + target + ": " + strerror(error));
      RespondUnder({row.call, target.c_str(), error}, row.flags, &faulty_calls);
      EXPECT_GT(faulty_calls, 0);
      EXPECT_THAT(Failures(),
                  ElementsAreArray(Filled(row.messages, {{"{dir}", Dir()},
                                                         {"{log}", LogPath()},
                                                         {"{pid}", pid},
                                                         {"{tid}", std::to_string(tid_)},
                                                         {"{errno}", std::to_string(error)},
                                                         {"{text}", strerror(error)}})));
      EXPECT_EQ(std::filesystem::exists(LogPath()), row.outcome != kNoFile);
      EXPECT_EQ(WholeHeader(LogPath()), row.outcome == kWhole);
      const bool lock_stays = strstr("access unlink", row.call) != nullptr;
      EXPECT_EQ(std::filesystem::exists(Dir() + ".lock"), lock_stays);
      EXPECT_EQ(Lines(test_root::kJournal), target.find("event") == std::string::npos ? 1 : 0);
      ExpectNextIncidentIsWell();
    }
    const bool repeated = strstr("open openat write", row.call) != nullptr;
    for (const int times : repeated ? Errors{1, 4} : Errors{}) {
      SCOPED_TRACE(std::string(row.call) + " " + target + " interrupted");
      RespondUnder({row.call, target.c_str(), EINTR, 0, times}, kStacks, &faulty_calls);
      EXPECT_GT(faulty_calls, times);
      EXPECT_THAT(Failures(), IsEmpty());
      EXPECT_TRUE(WholeHeader(LogPath()));
      EXPECT_EQ(Lines(test_root::kJournal), 1);
      EXPECT_EQ(Lines(kTraceMarker), 2);
    }
  }
}

// Incidents that end the process, each in a child.
class FaultyExit : public IncidentTest {
 protected:
  void SetUp() override { test_root::SetProperty(Name(), "3,100"); }
  static std::string Name() { return QuorvelRecoveryRecordName(false, "fault_tests"); }
  static std::string Record() { return test_root::PropertyText(Name()); }
};

TEST_F(FaultyExit, LeavesTheOldRecordOrTheNewOneWhereverACallFailsOrTheProcessIsKilled) {
  bool more_calls = true;
  for (int call = 0; more_calls && call < 1000; ++call) {
    for (const int error : {ENOSPC, EMFILE, EINTR, EIO, kDie}) {
      SCOPED_TRACE("call " + std::to_string(call) + ": " + strerror(error));
      SetUp();
      const int code = InChild([&] {
        const ScopedFault fault({"*", "", error, call, 1});
        Respond(kRecover);
      });
      EXPECT_TRUE(code == 1 || error == kDie) << code;
      more_calls = code == 128 + SIGKILL;
      now_ += 61;  // as the child has seen it; a record that cannot be read counts as none
      const std::string now = std::to_string(now_);
      EXPECT_THAT(Record(), testing::AnyOf("3,100", "4," + now, "1," + now));
    }
    ExpectNextIncidentIsWell();
  }
}

TEST_F(FaultyExit, OfTwentyProcessesKilledAnywhereLeavesNoLockNoTornRecordAndNotTooManyFiles) {
  constexpr size_t kProcesses = 20;
  test_root::SetProperty(Name(), "0,1000000000");
  std::mt19937 random(std::random_device{}());
  std::set<pid_t> alive;
  int killed = 0;
  const auto start = [&] {
    now_ += 2000;  // the recovery limit lets every one exit
    const int fatal_call = static_cast<int>(random() % 60);
    const pid_t child = fork();
    if (child == 0) {
      fakes.usleep = nullptr;
      fakes.gettimeofday = nullptr;
      const ScopedFault fault({"*", "", kDie, fatal_call});
      Respond(kRecover);
      _exit(1);  // another's exit, later by its clock, has forbidden this one
    }
    alive.insert(child);
  };
  const auto reap = [&](int options) {
    int status;
    for (pid_t pid; (pid = waitpid(-1, &status, options)) > 0; alive.erase(pid)) {
      const bool by_kill = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
      if (by_kill) ++killed;
      EXPECT_TRUE(by_kill || (WIFEXITED(status) && WEXITSTATUS(status) == 1)) << status;
    }
  };
  for (int kills = 20; kills <= 200; kills += 20) {
    while (killed < kills) {
      while (alive.size() < kProcesses) start();
      // Each may have listed the directory before the others made their files.
      EXPECT_LE(LogFiles(), 9 + static_cast<long>(kProcesses));
      const std::string record = Record();
      EXPECT_EQ(record.size() - record.find(','), strlen(",1234567890")) << record;
      poll(nullptr, 0, 1);
      kill(*std::next(alive.begin(), static_cast<long>(random() % alive.size())), SIGKILL);
      reap(WNOHANG);
    }
    for (const pid_t pid : alive) kill(pid, SIGKILL);
    reap(0);
    ExpectNextIncidentIsWell();
  }
}

class FaultyDisk : public FaultyExit {
 protected:
  // Runs body in a child that sees a small file system of its own at a path of the device.
  void WithDisk(const char* device_path, unsigned long flags, const char* options,
                const std::function<void()>& body) {
    const int code = InChild([&] {
      const std::string uid = std::to_string(geteuid()), gid = std::to_string(getegid());
      if (unshare(CLONE_NEWNS | (uid != "0" ? CLONE_NEWUSER : 0)) != 0) _exit(kSkipped);
      if (uid != "0") {  // root of a user namespace
        test_root::WriteFile("/proc/self/setgroups", "deny");
        test_root::WriteFile("/proc/self/uid_map", "0 " + uid + " 1");
        test_root::WriteFile("/proc/self/gid_map", "0 " + gid + " 1");
      }
      const std::string path = test_root::Path(device_path);
      const bool mounted = mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                           mount("tmpfs", path.c_str(), "tmpfs", flags, options) == 0;
      if (!mounted) _exit(kSkipped);
      body();
    });
    if (code == kSkipped) GTEST_SKIP() << "nobody may mount for himself alone here";
    EXPECT_EQ(code, 0);
  }
  static void Fill(const std::string& dir) {
    const std::string page(4096, 'x');
    for (int i = 0; std::ofstream(dir + ".fill" + std::to_string(i)) << page << std::flush; ++i) {
    }
  }
  void ExpectIncident(const Texts& failures) {
    Respond(kLog);
    EXPECT_EQ(calls_, 1);
    EXPECT_THAT(Failures(), ElementsAreArray(Filled(failures, {{"{log}", LogPath()}})));
  }
};

TEST_F(FaultyDisk, AFullOneTakesNoTextUntilThereIsRoom) {
  WithDisk(test_root::kLogDir, 0, "size=64k", [this] {
    FillWithOldLogs();
    Fill(Dir());
    ExpectIncident({});
    EXPECT_EQ(test_root::ReadFile(LogPath()), "");
    EXPECT_EQ(LogFiles(), 10);
    std::filesystem::remove(Dir() + ".fill0");
    ExpectNextIncidentIsWell();
  });
}

TEST_F(FaultyDisk, OneWithoutInodesHasThatOfTheOldestLog) {
  WithDisk(test_root::kLogDir, 0, "nr_inodes=20", [this] {
    FillWithOldLogs();
    Fill(Dir());
    ExpectIncident({"GetStorageLock fail, 28\n"});
    EXPECT_TRUE(WholeHeader(LogPath()));
    EXPECT_EQ(LogFiles(), 10);
  });
}

TEST_F(FaultyDisk, AReadOnlyOneGetsNoLog) {
  WithDisk(test_root::kLogDir, MS_RDONLY, "", [this] {
    ExpectIncident({"GetStorageLock fail, 30\n", "OpenLogPath: open {log} fail, 30\n"});
  });
}

TEST_F(FaultyDisk, AFullPropertyStoreKeepsTheOldRecordAndNothingElse) {
  WithDisk(kStore, 0, "size=64k", [this] {
    SetUp();
    Fill(test_root::Path(kStore));
    EXPECT_EQ(InChild([this] { Respond(kRecover); }), 1);
    EXPECT_EQ(Record(), "3,100");
    EXPECT_FALSE(
        testing::Value(test_root::List(kStore), testing::Contains(testing::StartsWith(".new"))));
  });
}

}  // namespace
