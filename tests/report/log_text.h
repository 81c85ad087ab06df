// Logs made in a test, and what the reader finds in them.
#pragma once

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "log_reader.h"

namespace report {

inline constexpr char kHeader[] =
    "Sun Nov 22 22:13:48 2026\n"
    "timeout tid: 100\n"
    "timeout function: reload\n"
    "time start: Sun Nov 22 22:13:45 2026\n"
    "Build fingerprint: brand/device:12/release-keys\n"
    ">>> service <<<\n";

// 21:13:48.123 UTC, an hour behind the header's time.
inline constexpr char kFile[] = "logs/quorvel@1795382028123.log";

// The section of a kernel stack.
inline std::string Kernel(int tid, const std::vector<std::string>& functions) {
  std::string text = fmt::format("\nkernel stack tid = {}\n", tid);
  for (const std::string& function : functions) text += "[<0>] " + function + "+0x12/0x180\n";
  return text;
}

// The section of a user stack of such functions; a leading "libc:" puts one into the C library.
inline std::string User(int tid, const std::vector<std::string>& functions) {
  std::string text = fmt::format("\ntid = {}\n", tid);
  for (size_t i = 0; i < functions.size(); ++i) {
    const bool libc = functions[i].rfind("libc:", 0) == 0;
    text += fmt::format("  #{:02} pc {:016x}  {} ({}+{})\n", i, 0x1000 + 16 * i,
                        libc ? "/usr/lib/libc.so.6" : "/vendor/bin/service",
                        functions[i].substr(libc ? 5 : 0), 7 + i);
  }
  return text;
}

// Reads texts as logs.
class LogTest : public testing::Test {
 protected:
  Incident Read(const std::string& text, const std::string& file = kFile) {
    Incident incident;
    std::string error;
    const int fd = memfd_create("log", MFD_CLOEXEC);
    EXPECT_EQ(static_cast<ssize_t>(text.size()), pwrite(fd, text.data(), text.size(), 0));
    EXPECT_TRUE(reader_.Read(fd, file, &incident, &error)) << error;
    close(fd);
    return incident;
  }

 private:
  LogReader reader_{nullptr};
};

}  // namespace report
