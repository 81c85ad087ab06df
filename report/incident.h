// What one incident log says, as plain data: what the reader fills, and what every output writes.
//
// All text is valid UTF-8 without control characters: the reader replaced what a log must not bring
// to a terminal or a page. Views of text and pointers to frames stay valid as long as their
// incident or a copy of it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace report {

// What a function on a stack tells about a hang.
enum class Role : uint8_t {
  kOwn,       // code of the program
  kWaiting,   // the machinery of waiting: system-call stubs, lock, condition and poll functions
  kPlumbing,  // what starts threads and forwards calls: never the reason for a hang
};

// A line "#NN pc HEX  MAP (FUNCTION+N)". Equal lines of all logs share one Frame.
struct Frame {
  uint64_t pc = 0;      // relative to the ELF file
  uint64_t offset = 0;  // of the ELF file in the mapped file; 0 when it begins there
  uint64_t function_offset = 0;
  std::string_view map;       // the mapping's whole name; "<anonymous:START>", "<unknown>"
  std::string_view symbol;    // the function's name as the log spells it; empty when unnamed
  std::string_view function;  // the same, demangled
  std::string_view plain;     // the same without arguments, template arguments and suffixes
  std::string_view label;     // what to call the frame: its function, or its file as "[libc.so.6]"
  std::string_view source;    // "file.c:12" from an unstripped file; empty when not looked up
  std::vector<std::string_view> inlined;        // functions inlined at pc, innermost first
  std::vector<std::string_view> inlined_plain;  // those of the program's own, by their plain names
  uint8_t pc_digits = 16;                       // as many as the log has: 8 of a 32-bit process
  Role role = Role::kOwn;
  bool system = false;  // in a library of the system, not in the program's own code
  bool telling = true;  // part of what makes two hangs the same
};

struct Thread {
  int tid = 0;
  bool watched = false;
  bool has_kernel = false;                 // a kernel section was there, even an empty one
  bool has_user = false;                   // a user section was there, even an empty one
  char state = '\0';                       // 'S', 'R', ...: only where the log has no kernel stack
  std::vector<std::string_view> kernel;    // "function+0x1/0x2", innermost first
  std::vector<const Frame*> user;          // innermost first
  std::optional<std::string_view> failed;  // why it could not be unwound; may be empty
};

// Threads with the same user functions.
struct Group {
  std::vector<int> tids;               // ascending
  std::vector<std::string_view> user;  // the functions, innermost first
};

struct Reason {
  std::string_view kind =
      "unknown";     // one of the kinds in reason_table.cpp, or "running", "unknown"
  std::string text;  // "waits for a file lock, in flock"
};

struct Incident {
  std::string file;
  std::optional<int64_t> written_ms;          // since the epoch, from the file's name
  std::optional<int64_t> written_local;       // the header's time, in seconds as if it were UTC
  std::optional<int64_t> started_local;       // likewise
  std::optional<int64_t> utc_offset_seconds;  // local time less UTC
  int tid = 0;                                // of the watched thread
  std::optional<std::string_view> watch;
  std::optional<std::string_view> program;
  std::optional<std::string_view> fingerprint;
  std::string signature;
  std::string signature_id;
  Reason reason;
  std::vector<Thread> threads;            // the watched one first, then by id
  std::vector<Group> groups;              // largest first
  std::vector<std::string_view> printed;  // lines that the program itself printed, a few
  std::vector<std::string> problems;      // "line 93: ...", the first of them
  uint64_t problem_count = 0;             // all of them
  std::shared_ptr<const void> store;      // what views and frames point into
  std::string raw;  // the file's bytes, only if the reader was asked to keep them

  // The watched thread; null when the log has no section of it.
  const Thread* Watched() const {
    return threads.empty() || !threads.front().watched ? nullptr : &threads.front();
  }
  // Seconds from the watch's start to the incident.
  std::optional<int64_t> ArmedSeconds() const {
    if (!written_local || !started_local || *written_local < *started_local) return std::nullopt;
    return *written_local - *started_local;
  }
};

// "2026-11-22T21:13:48.123Z"; local time without the Z where the file's name tells no zone; empty
// when the log does not say.
std::string WrittenText(const Incident& incident);
std::string StartedText(const Incident& incident);

}  // namespace report
