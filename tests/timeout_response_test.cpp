#include "core/timeout_response.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <utility>

#include "log/log_file.h"
#include "support/fakes.h"
#include "support/log_capture.h"
#include "support/test_root.h"

namespace {

using test_root::SetProperty;
using testing::ExitedWithCode;
using testing::HasSubstr;
using testing::Not;

constexpr char kConfig[] = "dravik.event.12.config";
constexpr char kSwitch[] = "ro.quorvel.rec";
constexpr uint32_t kLog = QUORVEL_FLAG_LOG;
constexpr uint32_t kStacks = QUORVEL_FLAG_BACKTRACE;
constexpr uint32_t kRecovery = QUORVEL_FLAG_RECOVERY;

void Call(void* function) {
  (*static_cast<std::function<void()>*>(function))();
}

// Each test begins a rate-limit period of its own, so none adds to this process's count.
class TimeoutResponse : public testing::Test {
 protected:
  TimeoutResponse() {
    test_root::MakeEmptyDir(test_root::kLogDir);
    test_root::MakeEmptyDir("/data/log/dravik/");
    SetProperty(kConfig, "1");
    SetProperty(kSwitch, "false");
    now_ += 1000;
    fakes.time = [] { return now_; };
    fakes.gettimeofday = [] { return timeval{now_, 0}; };
    fakes.getprogname = [] { return "app"; };
  }
  ~TimeoutResponse() override {
    SetProperty(kConfig, nullptr);
    SetProperty(kSwitch, nullptr);
  }

  void Respond(uint32_t flags, QuorvelCallback callback = Call) {
    calls_ = 0;
    log_.Clear();
    QuorvelTimeoutResponse({0x20a, callback, gettid(), "flush-db", now_ - 9, &callback_, flags},
                           false);
  }
  static std::string Journal() { return test_root::ReadFile(test_root::Path(test_root::kJournal)); }
  static std::string LogText() { return test_root::ReadFile(QuorvelLastLogPath()); }

  static time_t now_;
  int calls_ = 0;
  std::function<void()> callback_ = [this] { ++calls_; };
  const LogLine no_exit_ = Error("not set recovery flag of quorvel");
  ScopedFakes restore_;
  LogCapture log_;
};
time_t TimeoutResponse::now_ = time(nullptr);

TEST_F(TimeoutResponse, StepsComeInOrder) {
  std::string header;
  callback_ = [&] {
    EXPECT_EQ(log_.Lines().front(), Error("Trigger 0x20a Callback Function ...\n"));
    EXPECT_EQ(Journal(), "");
    header = LogText();
    QuorvelPrintLine("said by the callback");
  };
  Respond(kLog | kStacks);
  const std::string tid = std::to_string(gettid()) + "\n";
  EXPECT_THAT(header, HasSubstr("timeout tid: " + tid + "timeout function: flush-db\n"));
  EXPECT_THAT(header, testing::EndsWith(">>> app <<<\n"));
  const std::string text = LogText();
  EXPECT_EQ(text.find(header + "\nkernel stack tid = " + tid), 0u);
  EXPECT_THAT(text.substr(header.size()), HasSubstr("\n\ntid = " + tid));
  EXPECT_THAT(text, Not(HasSubstr("said by the callback")));
  EXPECT_THAT(Journal(), HasSubstr("\"app," + QuorvelLastLogPath() + "\""));
  EXPECT_EQ(log_.Lines().back(), no_exit_);
}

TEST_F(TimeoutResponse, WithoutFlagsOrCallbackAllTheRestHappens) {
  for (const auto& [callback, calls] : {std::pair(&Call, 1), {nullptr, 0}}) {
    test_root::MakeEmptyDir("/data/log/dravik/");
    Respond(0, callback);
    EXPECT_EQ(calls_, calls);
    EXPECT_TRUE(test_root::List(test_root::kLogDir).empty());
    EXPECT_TRUE(log_.Has("timeout function: flush-db\n"));
    EXPECT_FALSE(log_.Has("stack"));
    EXPECT_NE(Journal(), "");
    EXPECT_EQ(log_.Lines().back(), no_exit_);
  }
}

TEST_F(TimeoutResponse, AFailedStepStopsNoOther) {
  test_root::RemoveTree(test_root::kLogDir);
  SetProperty(kConfig, nullptr);
  Respond(kLog | kStacks | kRecovery);
  EXPECT_EQ(calls_, 1);
  EXPECT_TRUE(log_.Has("not ready, skip logging...\n"));
  EXPECT_TRUE(log_.Has("get dravik config fail, skip...\n"));
  EXPECT_EQ(log_.Lines().back(), no_exit_);
}

TEST_F(TimeoutResponse, TheProcessEndsOnlyWhenTheIncidentIsClosed) {
  SetProperty(kSwitch, nullptr);
  EXPECT_EXIT(Respond(kLog | kRecovery), ExitedWithCode(1), "");
  EXPECT_NE(Journal(), "");
  EXPECT_EQ(test_root::List(test_root::kLogDir).size(), 1u);
}

// In a process of its own, as it uses the count up.
TEST_F(TimeoutResponse, TheRateLimitsCountOutlivesEveryPeriod) {
  const auto run = [&] {
    const time_t begin = now_;
    std::string trace;
    const auto respond = [&](time_t second, uint32_t flags) {
      now_ = begin + second;
      test_root::MakeEmptyDir("/data/log/dravik/");
      Respond(flags);
      const LogLine last = log_.Lines().back();
      const bool dropped = last == Error("Too many callback triggerd in a short time! \n");
      const bool whole = calls_ == 1 && Journal() != "" && last == no_exit_;
      const bool nothing = calls_ == 0 && Journal() == "" && log_.Lines().size() == 2;
      trace += dropped && nothing ? "-" : !dropped && whole ? "+" : "?";
    };
    for (const uint32_t flags : {kLog, kStacks, kLog | kStacks, 0u, kRecovery}) respond(0, flags);
    for (const time_t second : {1, 2, 3, 4, 59, 60, 61, 62, 121, 122, 123, 5000}) {
      respond(second, kLog | kRecovery);
    }
    respond(5001, kStacks);
    respond(5001, kRecovery);
    fputs(trace.c_str(), stderr);
    _exit(0);
  };
  EXPECT_EXIT(run(), ExitedWithCode(0), testing::Eq("++++++++---+--+-+-+"));
}

}  // namespace
