// The log file of an incident: its directory, lock, name and mode, the clean-up before it; and its
// lines on their way through the buffer into the file and the Android log.

#include "log/log_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>

#include "support/library_test.h"

namespace {

namespace fs = std::filesystem;
using test_root::kLogDir;
using testing::ElementsAre;

constexpr int kLog = QUORVEL_FLAG_LOG;

// Time stands still; pauses are recorded, and what a test wants happens in them.
class LogFile : public LibraryTest {
 protected:
  LogFile() {
    fakes.gettimeofday = [this](timeval* now) { return *now = now_, 0; };
    fakes.usleep = [this](useconds_t micros) {
      pauses_.push_back(micros);
      if (in_pause_) in_pause_();
      return 0;
    };
  }

  // Begins an incident; its file's name, empty without one.
  std::string Begin(int flags = kLog) {
    QuorvelDropLogInChild();
    pauses_.clear();
    QuorvelInitLog(flags, false);
    if (QuorvelGetLogFd() < 0) return "";
    const std::string path = fs::read_symlink("/proc/self/fd/" + std::to_string(QuorvelGetLogFd()));
    EXPECT_EQ(path, fs::canonical(QuorvelLastLogPath()));
    return path.substr(path.rfind('/') + 1);
  }
  static void Touch(const std::string& name) { test_root::WriteFile(Path(name), ""); }
  static std::string Path(const std::string& name) { return test_root::Path(kLogDir + name); }

  timeval now_ = {1763315480, 7250};
  std::vector<useconds_t> pauses_;
  std::function<void()> in_pause_;
  const std::string name_ = "quorvel@1763315480007.log";
};

TEST_F(LogFile, OnlyTheLogFlagOpensOne) {
  test_root::RemoveTree(kLogDir);  // of which nothing is said, as nobody looks
  for (const int flags : {0, 2, 4, 8, ~kLog}) {
    EXPECT_EQ(Begin(flags), "");
    EXPECT_EQ(QuorvelGetLogFlags(), flags);
  }
  EXPECT_EQ(log_.Lines(), Texts{});
}

TEST_F(LogFile, ItsNameHasThreeDigitsOfMilliseconds) {
  EXPECT_EQ(Begin(), "quorvel@1763315480007.log");
  now_.tv_usec = 999;
  EXPECT_EQ(Begin(), "quorvel@1763315480000.log");
  now_.tv_usec = 999999;
  EXPECT_EQ(Begin(), "quorvel@1763315480999.log");
}

TEST_F(LogFile, OthersMayReadItWhateverTheUmaskButNoProgramInheritsIt) {
  const mode_t old_mask = umask(077);
  Begin();
  umask(old_mask);
  EXPECT_EQ(fs::status(QuorvelLastLogPath()).permissions(), fs::perms(0644));
  EXPECT_EQ(fcntl(QuorvelGetLogFd(), F_GETFD), FD_CLOEXEC);
}

TEST_F(LogFile, OfMoreTheLowestNamesGoUntilNineAreLeft) {
  for (int i = 10; i <= 21; ++i) Touch(std::to_string(i));
  Begin();
  EXPECT_EQ(test_root::List(kLogDir),
            Texts({"13", "14", "15", "16", "17", "18", "19", "20", "21", name_}));
  EXPECT_THAT(log_.Lines(), ElementsAre("I/QUORVEL: delete 10\n", "I/QUORVEL: delete 11\n",
                                        "I/QUORVEL: delete 12\n"));
}

TEST_F(LogFile, NineOthersStayAndHiddenFilesDirectoriesAndLinksNeitherCountNorGo) {
  for (int i = 1; i <= 9; ++i) Touch(std::to_string(i));
  for (const char* hidden : {".a", ".b"}) Touch(hidden);
  fs::create_directory(Path("0_directory"));
  fs::create_symlink("1", Path("0_link"));
  Begin();
  EXPECT_EQ(test_root::List(kLogDir).size(), 14u);
  EXPECT_EQ(log_.Lines(), Texts{});
}

TEST_F(LogFile, TheLockIsHeldWhileTheNameIsDrawnAndGoneAfterwards) {
  for (int i = 10; i <= 21; ++i) Touch(std::to_string(i));  // the clean-up is no reason to lose it
  mode_t mode = 0;
  fakes.gettimeofday = [&](timeval* now) {
    struct stat st = {};
    EXPECT_EQ(stat(Path(".lock").c_str(), &st), 0);
    mode = st.st_mode & 07777;
    return *now = now_, 0;
  };
  const mode_t old_mask = umask(0);
  Begin();
  umask(old_mask);
  EXPECT_EQ(mode, 0600u);
  EXPECT_FALSE(fs::exists(Path(".lock")));
  EXPECT_EQ(pauses_.size(), 0u);
}

TEST_F(LogFile, ALockThatStaysIsRemovedAtTheFifthTest) {
  Touch(".lock");
  EXPECT_EQ(Begin(), name_);
  EXPECT_THAT(pauses_, ElementsAre(5000, 5000, 5000, 5000));
  EXPECT_FALSE(fs::exists(Path(".lock")));
}

TEST_F(LogFile, ALockThatGoesIsWaitedForNoLonger) {
  for (const size_t pauses : {1u, 2u, 3u, 4u}) {
    Touch(".lock");
    in_pause_ = [&] { pauses_.size() == pauses&& fs::remove(Path(".lock")); };
    now_.tv_sec += 1;
    EXPECT_NE(Begin(), "");
    EXPECT_EQ(pauses_.size(), pauses);
  }
}

TEST_F(LogFile, FourTakenNamesEndTheSearchWithoutAWordAndTheLastPathStays) {
  Begin();
  const std::string last = QuorvelLastLogPath();
  now_.tv_sec += 1;
  Touch("quorvel@1763315481007.log");
  EXPECT_EQ(Begin(), "");
  EXPECT_EQ(pauses_.size(), 4u);
  EXPECT_EQ(QuorvelLastLogPath(), last);
  EXPECT_EQ(test_root::List(kLogDir), Texts({name_, "quorvel@1763315481007.log"}));
  EXPECT_EQ(log_.Lines(), Texts{});
}

class LogLine : public LogFile {
 protected:
  LogLine() { Begin(); }
  static std::string Xs(size_t count) { return std::string(count, 'x'); }
};

TEST_F(LogLine, OfTwoTo1022CharactersIsKeptWhole) {
  for (const size_t length : {2u, 1022u}) {
    QuorvelClearLog();
    log_.Clear();
    QuorvelPrintLine("%s", Xs(length).c_str());
    EXPECT_EQ(QuorvelLogText(), Xs(length) + "\n");
    EXPECT_EQ(log_.Lines(), Texts{"W/QUORVEL: " + Xs(length)});
  }
}

TEST_F(LogLine, OfNoneOneOr1023CharactersIsDroppedWithoutAWord) {
  for (const size_t length : {0u, 1u, 1023u}) QuorvelPrintLine("%s", Xs(length).c_str());
  const char* const volatile no_format = nullptr;
  QuorvelPrintLine(no_format);
  EXPECT_STREQ(QuorvelLogText(), "");
  EXPECT_EQ(log_.Lines(), Texts{});
}

TEST_F(LogLine, ThatIsLongerIsReportedAndNeverCut) {
  errno = 7;
  QuorvelPrintLine("%s", Xs(1024).c_str());
  EXPECT_EQ(errno, 7);
  EXPECT_STREQ(QuorvelLogText(), "");
  EXPECT_EQ(log_.Lines(), Texts{"E/QUORVEL: QuorvelPrintLine: cannot vsnprintf 7\n"});
}

TEST_F(LogLine, ThatDoesNotFitIsDroppedWholeAndAShorterOneStillFits) {
  while (QuorvelLogLength() < 4000) QuorvelAppendLog("f", 1);
  QuorvelPrintLine("%s", Xs(95).c_str());
  EXPECT_EQ(QuorvelLogLength(), 4000u);
  EXPECT_EQ(log_.Lines("E/"), Texts{"QUORVEL: log too long, drop '" + Xs(95) + "\n'"});
  QuorvelPrintLine("%s", Xs(94).c_str());
  EXPECT_EQ(QuorvelLogLength(), 4095u);
}

TEST_F(LogLine, GetsANewlineOnlyInTheFileOfItsIncidentAndOnlyIfItHasNone) {
  QuorvelPrintLine("one");
  QuorvelPrintLine("two\n");
  QuorvelFlushLog();
  QuorvelBeginLog(kLog);
  QuorvelFlushLog();
  EXPECT_EQ(test_root::ReadFile(QuorvelLastLogPath()), "one\ntwo\n");
  EXPECT_EQ(log_.Lines(), Texts({"W/QUORVEL: one", "W/QUORVEL: two\n"}));
}

TEST_F(LogLine, StaysInTheAndroidLogWithoutAFile) {
  QuorvelDropLogInChild();
  QuorvelBeginLog(kLog);
  QuorvelPrintLine("one");
  EXPECT_STREQ(QuorvelLogText(), "");
  EXPECT_EQ(log_.Lines(), Texts{"W/QUORVEL: one"});
}

}  // namespace
