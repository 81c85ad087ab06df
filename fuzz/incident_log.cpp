// The fuzzer of quorvel-report's reader: a log of any bytes harms nothing and reaches no output as
// anything but safe text and valid JSON.
#undef NDEBUG

#include <assert.h>
#include <sys/mman.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "folded_output.h"
#include "incident_text.h"
#include "json_output.h"
#include "log_reader.h"
#include "ndk_output.h"
#include "ranking_text.h"
#include "safe_text.h"

namespace {

void CheckOutputs(const report::Incident& incident) {
  std::ostringstream json, text;
  report::WriteJson(incident, {{"device", "a"}}, &json);
  report::WriteRow(incident, {{"device", "a"}}, &json);
  std::istringstream lines(json.str());
  for (std::string line; std::getline(lines, line);) assert(nlohmann::json::accept(line));

  report::FoldedStacks folded;
  folded.Add(incident);
  folded.Write(&text);
  report::WriteNdk(incident, &text);
  report::RankingBuilder ranking;
  ranking.Add(incident);
  const report::Painter painter(false);
  text << report::FullText(incident, {80, false}, painter)
       << report::FullText(incident, {20, true}, painter)
       << report::RankingText(ranking.Finish(), 1, {60, false}, painter);
  std::istringstream shown(text.str());
  for (std::string line; std::getline(shown, line);) assert(report::SafeText(line) == line);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const int fd = memfd_create("log", MFD_CLOEXEC);
  assert(ftruncate(fd, 0) == 0 && lseek(fd, 0, SEEK_SET) == 0);
  assert(pwrite(fd, data, size, 0) == static_cast<ssize_t>(size));
  report::LogReader reader;
  report::Incident incident;
  std::string error;
  if (reader.Read(fd, "quorvel@1795382028123.log", &incident, &error)) CheckOutputs(incident);
  return 0;
}
