#include "log/quorvel_log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvel/quorvel.h>
#include <unistd.h>

#include <string>

#include "support/log_capture.h"
#include "support/test_root.h"

namespace {

using testing::ElementsAre;

class QuorvelLog : public testing::Test {
 protected:
  QuorvelLog() { Open(QUORVEL_FLAG_LOG); }
  ~QuorvelLog() override { Close(); }

  void Open(uint32_t flags) {
    Close();
    path_ = test_root::Path("/line-buffer.txt");
    unlink(path_.c_str());
    QuorvelBeginLog(static_cast<int>(flags));
    QuorvelSetLogFd(open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  }
  void Close() {
    if (QuorvelGetLogFd() >= 0) close(QuorvelGetLogFd());
    QuorvelSetLogFd(-1);
  }
  // Brings the buffer to exactly this many characters.
  void FillTo(size_t length) {
    while (QuorvelLogLength() < length) {
      const size_t part = std::min<size_t>(length - QuorvelLogLength(), 500);
      ASSERT_EQ(QuorvelAppendLog(std::string(part, 'f').c_str(), part), 0);
    }
  }

  std::string path_;
  LogCapture log_;
};

TEST_F(QuorvelLog, LineLengthsAtTheLimits) {
  const struct {
    size_t length;
    size_t appended;  // with the added newline
    bool logged;
  } cases[] = {{0, 0, false},      {1, 0, false},      {2, 3, true},    {3, 4, true},
               {1021, 1022, true}, {1022, 1023, true}, {1023, 0, false}};
  for (const auto& c : cases) {
    QuorvelClearLog();
    log_.Clear();
    const std::string text(c.length, 'x');
    QuorvelPrintLine("%s", text.c_str());
    EXPECT_EQ(QuorvelLogLength(), c.appended) << c.length;
    if (c.logged) {
      EXPECT_THAT(log_.Lines(), ElementsAre(Warning(text))) << c.length;
    } else {
      EXPECT_THAT(log_.Lines(), ElementsAre()) << c.length;
    }
  }
  EXPECT_EQ(QuorvelLogLength(), 0u);
}

TEST_F(QuorvelLog, ALineTooLongIsReportedAndNeverTruncated) {
  errno = 7;
  QuorvelPrintLine("%s", std::string(1024, 'x').c_str());
  EXPECT_THAT(log_.Lines(), ElementsAre(Error("QuorvelPrintLine: cannot vsnprintf 7\n")));
  EXPECT_EQ(QuorvelLogLength(), 0u);
  QuorvelPrintLine("%s", std::string(10000, 'x').c_str());
  EXPECT_EQ(QuorvelLogLength(), 0u);
}

TEST_F(QuorvelLog, ExactlyOneNewlineInTheBufferAndNoneAddedInTheLog) {
  QuorvelPrintLine("abc");
  QuorvelPrintLine("def\n");
  EXPECT_STREQ(QuorvelLogText(), "abc\ndef\n");
  EXPECT_THAT(log_.Lines(), ElementsAre(Warning("abc"), Warning("def\n")));
}

TEST_F(QuorvelLog, NullFormatDoesNothing) {
  const char* null_format = nullptr;
  QuorvelPrintLine(null_format, 1);
  EXPECT_THAT(log_.Lines(), ElementsAre());
}

TEST_F(QuorvelLog, AFullBufferDropsWholeLinesAndStillTakesShorterOnes) {
  FillTo(4000);
  const std::string too_long(99, 'y');
  QuorvelPrintLine("%s", too_long.c_str());
  EXPECT_EQ(QuorvelLogLength(), 4000u);
  EXPECT_TRUE(log_.Has("log too long, drop '" + too_long + "\n'"));
  QuorvelPrintLine("%s\n", std::string(94, 'z').c_str());
  EXPECT_EQ(QuorvelLogLength(), kLogBufferRoom);
  log_.Clear();
  QuorvelPrintLine("ab");
  EXPECT_TRUE(log_.Has("log too long, drop 'ab\n'"));
  QuorvelClearLog();
  FillTo(3072);
  QuorvelPrintLine("%s", std::string(1022, 'x').c_str());
  EXPECT_EQ(QuorvelLogLength(), kLogBufferRoom);
}

TEST_F(QuorvelLog, WithoutAFileOrWithoutTheLogFlagNothingIsKept) {
  Open(QUORVEL_FLAG_BACKTRACE);
  QuorvelPrintLine("without the flag");
  Close();
  QuorvelBeginLog(QUORVEL_FLAG_LOG);
  QuorvelPrintLine("without a file");
  EXPECT_EQ(QuorvelLogLength(), 0u);
  EXPECT_THAT(log_.Lines(), ElementsAre(Warning("without the flag"), Warning("without a file")));
}

TEST_F(QuorvelLog, FlushWritesTheTextAndKeepsIt) {
  QuorvelFlushLog();
  EXPECT_EQ(test_root::ReadFile(path_), "");
  QuorvelPrintLine("once");
  QuorvelFlushLog();
  QuorvelFlushLog();
  EXPECT_EQ(test_root::ReadFile(path_), "once\nonce\n");
  Close();
  QuorvelFlushLog();
  EXPECT_EQ(test_root::ReadFile(path_), "once\nonce\n");
}

TEST_F(QuorvelLog, BeginningAnIncidentClearsEveryByte) {
  FillTo(kLogBufferRoom);
  QuorvelBeginLog(QUORVEL_FLAG_LOG | QUORVEL_FLAG_SYSTRACE);
  EXPECT_EQ(std::string(QuorvelLogText(), kLogBufferSize), std::string(kLogBufferSize, '\0'));
  EXPECT_EQ(QuorvelGetLogFlags(), 9);
}

}  // namespace
