// What the reader finds in whole, cut and foreign logs.
#include <nlohmann/json.hpp>
#include <sstream>

#include "folded_output.h"
#include "incident_text.h"
#include "json_output.h"
#include "log_text.h"
#include "ndk_output.h"

namespace report {
namespace {

class ReaderTest : public LogTest {};

std::string JsonText(const Incident& incident) {
  std::ostringstream out;
  WriteJson(incident, {}, &out);
  return out.str();
}

TEST_F(ReaderTest, JsonLacksFacts) {
  const Incident incident =
      Read(kHeader + Kernel(100, {"locks_lock_inode_wait"}) +
           User(100, {"libc:flock", "_Z4loadi"}) + "Unwind failed: tid = 9: gone\n");
  EXPECT_EQ(nlohmann::json::parse(R"json({
      "schema": 1, "file": "logs/quorvel@1795382028123.log", "written": "2026-11-22T21:13:48.123Z",
      "utc_offset_seconds": 3600, "started": "2026-11-22T21:13:45Z", "armed_seconds": 3,
      "tid": 100, "watch": "reload", "program": "service",
      "fingerprint": "brand/device:12/release-keys",
      "signature": "service: reload: file-lock: load", "signature_id": "1-14f7d67542ac561b",
      "reason": {"kind": "file-lock", "text": "waits for a file lock, in flock"},
      "threads": [
        {"tid": 100, "watched": true, "kernel": ["locks_lock_inode_wait+0x12/0x180"], "failed": null,
         "user": [{"pc": "0x1000", "offset": "0x0", "map": "/usr/lib/libc.so.6", "function": "flock",
                   "function_offset": 7, "source": null, "inlined": []},
                  {"pc": "0x1010", "offset": "0x0", "map": "/vendor/bin/service",
                   "function": "load(int)", "function_offset": 8, "source": null, "inlined": []}]},
        {"tid": 9, "watched": false, "kernel": [], "user": [], "failed": "gone"}],
      "groups": [{"tids": [9], "user": []}, {"tids": [100], "user": ["flock", "load(int)"]}],
      "labels": {}, "problems": []})json"),
            nlohmann::json::parse(JsonText(incident)));
}

TEST_F(ReaderTest, ZoneIsGuessedFromAnImpossibleDifference) {
  const Incident incident = Read(kHeader, "quorvel@1795000000000.log");
  EXPECT_FALSE(incident.utc_offset_seconds.has_value());
  EXPECT_EQ(1u, incident.problem_count);
}

TEST_F(ReaderTest, ZoneWithHalfHoursOrWestOfGreenwichIsMisread) {
  for (const int64_t offset : {19800, -12600, 0, 50400, -43200}) {
    const int64_t milliseconds = (1795385628 - offset) * 1000 - 1500;  // the header is later
    const std::string file = fmt::format("quorvel@{}.log", milliseconds);
    EXPECT_EQ(offset, Read(kHeader, file).utc_offset_seconds) << file;
  }
}

TEST_F(ReaderTest, FrameOfUnusualMapIsTakenApartWrongly) {
  struct {
    std::string line, map, function;
    uint64_t offset, function_offset;
  } const cases[] = {
      {"0000000000001000  /a b/lib (1).so (work+12)", "/a b/lib (1).so", "work", 0, 12},
      {"0000000000001000  /memfd:jit (deleted) (work)", "/memfd:jit (deleted)", "work", 0, 0},
      {"0000000000001000  /usr/lib/old.so (deleted)", "/usr/lib/old.so (deleted)", "", 0, 0},
      {"0000000000001000 (offset 0x2f000)  /base.apk (f+1)", "/base.apk", "f", 0x2f000, 1},
      {"00001000  <anonymous:7f00>", "<anonymous:7f00>", "", 0, 0},
      {"0000000000001000  <unknown>", "<unknown>", "", 0, 0},
      {"0000000000001000  /x (Java.call(int) (x)+3)", "/x", "Java.call(int) (x)", 0, 3},
      {"0000000000001000  /x (operator+)", "/x", "operator+", 0, 0},
  };
  for (const auto& [line, map, function, offset, function_offset] : cases) {
    const Incident incident = Read(std::string(kHeader) + "\ntid = 100\n  #00 pc " + line + "\n");
    ASSERT_EQ(1u, incident.threads.at(0).user.size()) << line;
    const Frame& frame = *incident.threads[0].user[0];
    EXPECT_EQ(map, frame.map);
    EXPECT_EQ(function, frame.function);
    EXPECT_EQ(offset, frame.offset);
    EXPECT_EQ(function_offset, frame.function_offset);
  }
}

TEST_F(ReaderTest, ThreadsAreOutOfOrderOrMixedUp) {
  const Incident incident =
      Read(kHeader + Kernel(100, {"do_wait"}) + Kernel(7, {"ep_poll"}) + User(7, {"loop"}) +
           User(100, {"work"}) + "Unwind failed: tid = 9: gone\n" + "Unwind failed: tid = 8: \n");
  ASSERT_EQ(4u, incident.threads.size());
  EXPECT_TRUE(incident.threads[0].watched);
  EXPECT_EQ("do_wait+0x12/0x180", incident.threads[0].kernel.at(0));
  EXPECT_EQ("loop", incident.threads[1].user.at(0)->function);
  EXPECT_EQ("", incident.threads[2].failed);
  EXPECT_EQ(0u, incident.problem_count);
}

TEST_F(ReaderTest, StateWithoutPrivilegeIsNoKernelStack) {
  const Incident incident =
      Read(std::string(kHeader) +
           "\nkernel stack tid = 100\n"
           "[no kernel stack: Operation not permitted] state S, wait channel futex_do_wait\n");
  EXPECT_EQ('S', incident.threads.at(0).state);
  EXPECT_EQ("futex_do_wait", incident.threads[0].kernel.at(0));
  EXPECT_EQ("futex", incident.reason.kind);
}

// What was read of a log that ends early is what the whole log has there, and nothing else.
TEST_F(ReaderTest, LogCutAnywhereIsReportedAsSomethingElse) {
  const std::string text = kHeader + Kernel(100, {"futex_wait", "do_futex"}) +
                           Kernel(101, {"pipe_read"}) + User(100, {"libc:flock", "work"}) +
                           User(101, {"libc:read"}) + "Unwind failed: tid = 12345: gone\n";
  const Incident whole = Read(text);
  for (size_t length = text.find("tid: 100\n") + 9; length < text.size(); ++length) {
    const Incident cut = Read(text.substr(0, length));
    EXPECT_EQ(text[length - 1] != '\n', cut.problem_count > 0) << length;
    for (const Thread& thread : cut.threads) {
      const auto same = std::find_if(whole.threads.begin(), whole.threads.end(),
                                     [&](const Thread& t) { return t.tid == thread.tid; });
      ASSERT_NE(whole.threads.end(), same) << length;
      ASSERT_LE(thread.user.size(), same->user.size());
      EXPECT_TRUE(std::equal(thread.user.begin(), thread.user.end(), same->user.begin())) << length;
    }
  }
}

TEST_F(ReaderTest, ClientsLinesHideTheHeader) {
  const Incident incident =
      Read("client: starting\n" + std::string(kHeader) + "client: timeout tid: 5\n" +
           "timeout tid: 5\ntimeout function: other\n" + User(100, {"work"}));
  EXPECT_EQ(100, incident.tid);
  EXPECT_EQ("reload", incident.watch);
  EXPECT_EQ(4u, incident.printed.size());
  EXPECT_EQ(0u, incident.problem_count);
}

TEST_F(ReaderTest, GarbageBetweenSectionsIsNotCounted) {
  const Incident incident =
      Read(kHeader + Kernel(100, {"do_wait"}) + "\xff\xfe garbage\n" + User(100, {"work"}) +
           std::string(200000, 'x') + "\n  #07 pc 0000000000001000  /x\n" + User(100, {"again"}));
  EXPECT_EQ(4u, incident.problem_count);  // garbage, too long, number 7, second section
  EXPECT_EQ(2u, incident.threads.at(0).user.size());
  EXPECT_EQ("line 15: frame 7 where frame 1 belongs", incident.problems.at(2));
}

TEST_F(ReaderTest, HostileNamesReachTheOutputs) {
  const std::string hostile =
      "<b>\x1b[31m\x07\xc2\x9b"
      "2J\xff\xc3(\xed\xa0\x80\xe2\x80\xae\r;\t\x7f";
  const Incident incident = Read(
      "timeout tid: 100\ntimeout function: " + hostile + "\n>>> " + hostile + " <<<\n" + hostile +
      "\n\ntid = 100\n  #00 pc 0000000000001000  /lib" + hostile + " (" + hostile + "+1)\n");
  FoldedStacks folded;
  folded.Add(incident);
  std::ostringstream out;
  folded.Write(&out);
  WriteNdk(incident, &out);
  WriteRow(incident, {}, &out);
  const std::string text = out.str() + JsonText(incident) + FullText(incident, {}, Painter(false));
  for (const char bad : {'\x1b', '\x07', '\xff', '\r', '\x7f'})
    EXPECT_EQ(text.npos, text.find(bad));
  EXPECT_EQ(text.npos, text.find("\xc2\x9b"));
  EXPECT_EQ(text.npos, text.find("\xe2\x80\xae"));
  const nlohmann::json json = nlohmann::json::parse(JsonText(incident));
  EXPECT_NE(std::string::npos, json["watch"].get<std::string>().find("<b>\xEF\xBF\xBD[31m"));
}

TEST_F(ReaderTest, TextsOfAnIncidentGoWithLaterLogs) {
  const Incident kept = Read(kHeader + User(100, {"first"}));
  std::vector<std::string> more_than_are_stored_together;
  for (int i = 0; i < 66000; ++i) more_than_are_stored_together.push_back(std::to_string(i));
  Read(kHeader + User(100, more_than_are_stored_together));
  const Incident next = Read(kHeader + User(100, {"next"}));
  EXPECT_EQ("first", kept.threads[0].user[0]->function);
  EXPECT_EQ("next", next.threads[0].user[0]->function);
}

}  // namespace
}  // namespace report
