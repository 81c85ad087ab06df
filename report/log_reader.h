// Reads incident logs. Any part of a log may be missing, cut or foreign: what can be read is
// reported, the rest is counted as a problem. Not for use by several threads at once.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "incident.h"

namespace report {

class Symbols;

class LogReader {
 public:
  // Where symbols is given, it names the frames; it stays the caller's. With keep_raw the incidents
  // hold their files' bytes.
  explicit LogReader(Symbols* symbols = nullptr, bool keep_raw = false)
      : symbols_(symbols), keep_raw_(keep_raw) {}

  // Reads the whole of fd, which stays the caller's, as the log of that file name. False, with the
  // reason (and the line, where there is one), when it cannot be read or is no incident log.
  // on_progress is called now and then with the bytes that were read.
  bool Read(int fd, const std::string& file, Incident* incident, std::string* error,
            const std::function<void(uint64_t)>& on_progress = nullptr);

 private:
  struct Store;
  Store* RoomyStore();

  Symbols* symbols_;
  bool keep_raw_;
  std::shared_ptr<Store> store_;
};

}  // namespace report
