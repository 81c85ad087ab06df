// The surroundings of a test of the library: nothing is left of the tests before it.
#ifndef QUORVEL_TESTS_SUPPORT_LIBRARY_TEST_H_
#define QUORVEL_TESTS_SUPPORT_LIBRARY_TEST_H_

#include <gmock/gmock.h>
#include <quorvel/quorvel.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>

#include "core/timeout_response.h"
#include "core/watch_registry.h"
#include "log/quorvel_log.h"
#include "support/child.h"
#include "support/fakes.h"
#include "support/log_capture.h"
#include "support/test_root.h"

using Texts = std::vector<std::string>;
using Function = std::function<void()>;

// The event and the trace of incidents are switched on, the rate limit is unspent.
class LibraryTest : public testing::Test {
 protected:
  LibraryTest() {
    test_root::MakeEmptyDirs();
    test_root::SetProperty("dravik.event.12.config", "1");
    test_root::SetProperty("debug.atrace.tags.enableflags", "0x800");
    test_root::WriteFile(trace_, "");
    QuorvelResetResponseInChild();
    signal(33, SIG_DFL);  // an exchange that failed leaves its action there
  }
  ~LibraryTest() override {
    QuorvelDropLogInChild();
    fakes = Fakes();
  }

  void InitWithoutMonitor() {
    fakes.pthread_create = [this](void* (*)(void*)) { return ++threads_made_, 0; };
    quorvel_init();
  }
  // A client's callback, whose argument is the function.
  static void Call(void* function) { (*static_cast<Function*>(function))(); }
  static uint32_t Start(int32_t timeout, Function* callback = nullptr, uint32_t flags = 0) {
    return __quorvel_start_ex("n", timeout, callback != nullptr ? Call : nullptr, callback, flags);
  }
  static uint32_t Armed() { return QuorvelStartedCount() - QuorvelEndedCount(); }
  // A whole incident.
  static void Respond(uint32_t flags, Function callback = nullptr, const char* name = "n",
                      int tid = gettid()) {
    QuorvelTimeoutResponse({0x20a, callback ? Call : nullptr, tid, name, 0, &callback, flags},
                           false);
  }
  static std::string Journal() { return test_root::ReadFile(journal_); }

  static inline const std::string journal_ = test_root::Path("/data/log/dravik/events.jsonl");
  static inline const std::string trace_ = test_root::Path("/sys/kernel/tracing/trace_marker");
  std::atomic<int> threads_made_{0};
  LogCapture log_;
};

#endif  // QUORVEL_TESTS_SUPPORT_LIBRARY_TEST_H_
