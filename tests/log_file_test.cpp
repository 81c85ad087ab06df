#include "log/log_file.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvel/quorvel.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "log/quorvel_log.h"
#include "support/fakes.h"
#include "support/log_capture.h"
#include "support/test_root.h"

namespace {

namespace fs = std::filesystem;
using test_root::kLogDir;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::SizeIs;

constexpr int kLog = static_cast<int>(QUORVEL_FLAG_LOG);

class LogFile : public testing::Test {
 protected:
  LogFile() {
    test_root::MakeEmptyDir(kLogDir);
    test_root::MakeEmptyDir(test_root::kVendorLogDir);
    fakes.gettimeofday = [this] { return clock_; };
    fakes.usleep = [this](useconds_t micros) {
      ++pauses_;
      EXPECT_EQ(micros, 5000u);
      if (on_pause_) on_pause_();
      return 0;
    };
  }
  ~LogFile() override { Close(); }

  void Close() {
    if (QuorvelGetLogFd() >= 0) close(QuorvelGetLogFd());
    QuorvelSetLogFd(-1);
  }
  static std::string LogPath(const std::string& name) { return test_root::Path(kLogDir + name); }
  void Touch(const std::string& name) { test_root::WriteFile(LogPath(name), ""); }
  std::vector<std::string> Names() { return test_root::List(kLogDir); }

  timeval clock_ = {1763315480, 7250};
  int pauses_ = 0;
  std::function<void()> on_pause_;
  ScopedFakes restore_;
  LogCapture log_;
};

TEST_F(LogFile, NamesCarryTheMillisecondsInThreeDigits) {
  const struct {
    suseconds_t micros;
    const char* name;
  } cases[] = {{7250, "quorvel@1763315480007.log"},
               {999999, "quorvel@1763315480999.log"},
               {999, "quorvel@1763315480000.log"}};
  for (const auto& c : cases) {
    test_root::MakeEmptyDir(kLogDir);
    clock_.tv_usec = c.micros;
    QuorvelInitLog(kLog, false);
    EXPECT_THAT(Names(), ElementsAre(c.name));
    EXPECT_EQ(QuorvelLastLogPath(), LogPath(c.name));
    Close();
  }
  EXPECT_EQ(pauses_, 0);
}

TEST_F(LogFile, ModeIgnoresTheUmaskAndTheDescriptorIsCloseOnExec) {
  const mode_t old = umask(077);
  QuorvelInitLog(kLog, true);
  umask(old);
  struct stat st;
  ASSERT_EQ(fstat(QuorvelGetLogFd(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0644u);
  EXPECT_NE(fcntl(QuorvelGetLogFd(), F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_THAT(test_root::List(test_root::kVendorLogDir), SizeIs(1));
  EXPECT_THAT(Names(), IsEmpty());
}

TEST_F(LogFile, WithoutTheLogFlagTheFileSystemIsNotTouched) {
  QuorvelPrintLine("left over");
  test_root::RemoveTree(kLogDir);
  QuorvelInitLog(static_cast<int>(QUORVEL_FLAG_BACKTRACE), false);
  EXPECT_EQ(QuorvelGetLogFd(), -1);
  EXPECT_EQ(QuorvelGetLogFlags(), 2);
  EXPECT_EQ(QuorvelLogLength(), 0u);
  EXPECT_FALSE(log_.Has("not ready"));
}

TEST_F(LogFile, ADirectoryThatIsNotOneIsNotReadyAndGetsNoLock) {
  const std::string dir = LogPath("");
  const std::string bare = dir.substr(0, dir.size() - 1);
  const auto expect_not_ready = [&] {
    log_.Clear();
    QuorvelInitLog(kLog, false);
    EXPECT_EQ(QuorvelGetLogFd(), -1);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(Error("log path " + dir + ", not ready, skip logging...\n")));
  };
  test_root::RemoveTree(kLogDir);
  expect_not_ready();
  EXPECT_FALSE(fs::exists(bare));
  test_root::WriteFile(bare, "plain file");
  expect_not_ready();
  EXPECT_EQ(test_root::ReadFile(bare), "plain file");
}

TEST_F(LogFile, TwelveFilesLeaveNineAndOthersAreNotCounted) {
  Touch("a.txt");
  for (int i = 100; i < 111; ++i) Touch("quorvel@1763315000" + std::to_string(i) + ".log");
  Touch(".hidden");
  fs::create_directory(LogPath("a-directory"));
  QuorvelInitLog(kLog, false);
  EXPECT_THAT(log_.Lines(),
              ElementsAre(Info("delete a.txt\n"), Info("delete quorvel@1763315000100.log\n"),
                          Info("delete quorvel@1763315000101.log\n")));
  EXPECT_THAT(Names(), SizeIs(10 + 2));
  EXPECT_THAT(Names(), Contains(".hidden"));
  EXPECT_THAT(Names(), Contains("a-directory"));
}

TEST_F(LogFile, NineFilesAllStay) {
  for (int i = 0; i < 9; ++i) Touch("quorvel@176331500000" + std::to_string(i) + ".log");
  const fs::path before = fs::current_path();
  QuorvelInitLog(kLog, false);
  EXPECT_THAT(log_.Lines(), IsEmpty());
  EXPECT_THAT(Names(), SizeIs(10));
  EXPECT_EQ(fs::current_path(), before);
}

TEST_F(LogFile, AStaleLockGoesAtTheFifthTest) {
  Touch(".lock");
  QuorvelInitLog(kLog, false);
  EXPECT_EQ(pauses_, 4);
  EXPECT_THAT(Names(), ElementsAre("quorvel@1763315480007.log"));
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(LogFile, ALockThatIsLetGoIsWaitedFor) {
  for (const int let_go_at : {1, 2, 3, 4}) {
    test_root::MakeEmptyDir(kLogDir);
    Touch(".lock");
    pauses_ = 0;
    on_pause_ = [&] {
      if (pauses_ == let_go_at) fs::remove(LogPath(".lock"));
    };
    QuorvelInitLog(kLog, false);
    EXPECT_EQ(pauses_, let_go_at);
    EXPECT_THAT(Names(), ElementsAre("quorvel@1763315480007.log"));
    Close();
  }
}

TEST_F(LogFile, ALockThatCannotBeRemovedDoesNotHoldTheMonitor) {
  fs::create_directory(LogPath(".lock"));
  QuorvelInitLog(kLog, false);
  EXPECT_TRUE(log_.Has("GetStorageLock fail, " + std::to_string(EISDIR) + "\n"));
  EXPECT_GE(QuorvelGetLogFd(), 0);
}

TEST_F(LogFile, ALockThatIsALinkIsNotFollowedOutOfTheDirectory) {
  const std::string outside = test_root::Path("/outside");
  fs::create_symlink(outside, LogPath(".lock"));
  QuorvelInitLog(kLog, false);
  EXPECT_FALSE(fs::exists(outside));
  EXPECT_TRUE(log_.Has("GetStorageLock fail, " + std::to_string(ELOOP) + "\n"));
  EXPECT_GE(QuorvelGetLogFd(), 0);
}

TEST_F(LogFile, AnExistingNameIsNeverReused) {
  test_root::WriteFile(LogPath("quorvel@1763315480007.log"), "another process's");
  on_pause_ = [this] { clock_.tv_usec += 5000; };
  QuorvelInitLog(kLog, false);
  EXPECT_THAT(QuorvelLastLogPath(), EndsWith("quorvel@1763315480012.log"));
  EXPECT_EQ(test_root::ReadFile(LogPath("quorvel@1763315480007.log")), "another process's");
  EXPECT_EQ(pauses_, 1);
}

TEST_F(LogFile, FourExistingNamesGiveUpSilentlyWithoutTheLock) {
  const std::string earlier = QuorvelLastLogPath();
  Touch("quorvel@1763315480007.log");
  QuorvelInitLog(kLog, false);
  EXPECT_EQ(QuorvelGetLogFd(), -1);
  EXPECT_EQ(pauses_, 4);
  EXPECT_THAT(log_.Lines(), IsEmpty());
  EXPECT_THAT(Names(), ElementsAre("quorvel@1763315480007.log"));
  EXPECT_EQ(QuorvelLastLogPath(), earlier);
}

// access does not see a dangling link, and the exclusive creation does not go through it.
TEST_F(LogFile, ADanglingLinkOfTheSameNameIsTreatedAsAnExistingName) {
  const std::string outside = test_root::Path("/outside");
  fs::create_symlink(outside, LogPath("quorvel@1763315480007.log"));
  on_pause_ = [this] { clock_.tv_usec += 5000; };
  QuorvelInitLog(kLog, false);
  EXPECT_FALSE(fs::exists(outside));
  EXPECT_THAT(QuorvelLastLogPath(), EndsWith("quorvel@1763315480012.log"));
}

TEST_F(LogFile, FilterAndOrderOfTheCleanUp) {
  dirent entry = {};
  const auto filter = [&](const char* name, unsigned char type) {
    snprintf(entry.d_name, sizeof(entry.d_name), "%s", name);
    entry.d_type = type;
    return LogFilter(&entry);
  };
  EXPECT_EQ(filter("x", DT_REG), 1);
  EXPECT_EQ(filter(".x", DT_REG), 0);
  EXPECT_EQ(filter("x", DT_LNK), 0);
  EXPECT_EQ(filter("x", DT_UNKNOWN), 0);
  EXPECT_EQ(LogFilter(nullptr), 0);
}

}  // namespace
