// The lines of an incident, on their way through the buffer into the file and the Android log.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <quorvel/quorvel.h>

#include "log/quorvel_log.h"
#include "support/log_capture.h"
#include "support/test_root.h"

namespace {

using Texts = std::vector<std::string>;

constexpr int kLog = QUORVEL_FLAG_LOG;

std::string Xs(size_t count) {
  return std::string(count, 'x');
}

class LogLine : public testing::Test {
 protected:
  LogLine() {
    QuorvelBeginLog(kLog);
    QuorvelSetLogFd(open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  }
  ~LogLine() override { QuorvelDropLogInChild(); }
  std::string File() const { return test_root::ReadFile(path_); }

  const std::string path_ = test_root::Path("/lines.txt");
  LogCapture log_;
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
  EXPECT_EQ(File(), "one\ntwo\n");
  EXPECT_EQ(log_.Lines(), Texts({"W/QUORVEL: one", "W/QUORVEL: two\n"}));
}

TEST_F(LogLine, StaysInTheAndroidLogWithoutTheFlagOrAFile) {
  QuorvelBeginLog(~kLog);
  QuorvelPrintLine("without the flag");
  EXPECT_STREQ(QuorvelLogText(), "");
  QuorvelBeginLog(kLog);
  QuorvelDropLogInChild();
  QuorvelPrintLine("without a file");
  EXPECT_STREQ(QuorvelLogText(), "");
  EXPECT_EQ(log_.Lines("W/QUORVEL: "), Texts({"without the flag", "without a file"}));
}

}  // namespace
