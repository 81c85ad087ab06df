// quorvel-report: reads incident logs and tells why work hung.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <functional>
#include <iostream>
#include <optional>

#include "folded_output.h"
#include "html_log.h"
#include "html_output.h"
#include "incident_text.h"
#include "input_files.h"
#include "json_output.h"
#include "log_reader.h"
#include "ndk_output.h"
#include "options.h"
#include "progress.h"
#include "ranking.h"
#include "ranking_text.h"
#include "safe_text.h"
#include "symbols.h"

namespace report {
namespace {

constexpr int kExitDone = 0;
constexpr int kExitUnread = 1;
constexpr size_t kWidthWithoutTerminal = 120;
constexpr size_t kMinWidth = 60;
constexpr size_t kOutputBuffer = 1024 * 1024;

// How the results are shown.
struct Surface {
  bool colours = false;
  TextLayout layout;
};

Surface LookAtOutput(const Options& options) {
  Surface surface;
  const bool terminal = isatty(STDOUT_FILENO) == 1;
  const char* const no_colour = getenv("NO_COLOR");
  const bool wanted = terminal && (no_colour == nullptr || *no_colour == '\0');
  surface.colours =
      options.colour == Colour::kAlways || (options.colour == Colour::kAuto && wanted);
  winsize size = {};
  surface.layout.width = kWidthWithoutTerminal;
  if (terminal && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
    surface.layout.width = std::max<size_t>(size.ws_col, kMinWidth);
  } else if (const char* const columns = getenv("COLUMNS"); columns != nullptr) {
    const unsigned long width = strtoul(columns, nullptr, 10);
    if (width > 0 && width < 10000) surface.layout.width = std::max<size_t>(width, kMinWidth);
  }
  surface.layout.whole_paths = options.all;
  return surface;
}

class Program {
 public:
  explicit Program(const Options& options)
      : options_(options),
        surface_(LookAtOutput(options)),
        painter_(surface_.colours),
        inputs_(FindLogs(options.paths, options.recursive)),
        progress_(inputs_.bytes) {
    if (!options.symbol_directories.empty()) symbols_.emplace(options.symbol_directories);
  }

  // The exit status.
  int Run() {
    for (const std::string& error : inputs_.errors) Complain(error);
    LogReader reader(symbols_ ? &*symbols_ : nullptr, options_.format == Format::kHtml);
    for (const std::string& file : inputs_.files) ReadOne(&reader, file);
    progress_.Clear();
    if (inputs_.files.empty() && inputs_.errors.empty()) {
      std::cerr << "quorvel-report: no logs (quorvel@*.log) there\n";
    }
    Finish();
    std::cout.flush();
    if (!std::cout) Complain("cannot write the results");
    return status_;
  }

 private:
  void Complain(const std::string& error) {
    progress_.Clear();
    std::cout.flush();
    std::cerr << "quorvel-report: " << error << std::endl;
    status_ = kExitUnread;
  }

  void ReadOne(LogReader* reader, const std::string& file) {
    const bool standard_input = file == "-";
    const int fd =
        standard_input ? STDIN_FILENO : open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd == -1) return Complain(SafeText(file) + ":0: cannot open: " + strerror(errno));
    Incident incident;
    std::string error;
    uint64_t bytes = 0;
    const bool read = reader->Read(fd, file, &incident, &error, [this, &bytes](uint64_t count) {
      bytes = count;
      progress_.Show(done_ + count);
    });
    done_ += bytes;
    if (!standard_input) close(fd);
    if (!read) return Complain(error);
    Take(std::move(incident));
  }

  void Take(Incident incident) {
    switch (options_.format) {
      case Format::kJson:
        return WriteJson(incident, options_.labels, &std::cout);
      case Format::kRows:
        return WriteRow(incident, options_.labels, &std::cout);
      case Format::kNdk:
        return WriteNdk(incident, &std::cout);
      case Format::kFolded:
        return folded_.Add(incident);
      case Format::kHtml:
        logs_.push_back(PackLog(incident.raw));
        incident.raw = std::string();
        incidents_.push_back(incident);
        return ranking_.Add(std::move(incident));
      case Format::kText:
        break;
    }
    ++texts_;
    if (!options_.all) return ranking_.Add(std::move(incident));
    if (texts_ > 1) std::cout << '\n';
    std::cout << FullText(incident, surface_.layout, painter_);
  }

  void Finish() {
    if (options_.format == Format::kFolded) folded_.Write(&std::cout);
    if (options_.format == Format::kHtml) WritePage();
    if (options_.format != Format::kText || options_.all || texts_ == 0) return;
    const Ranking ranking = ranking_.Finish();
    std::cout << (texts_ == 1 ? FullText(ranking.front().newest, surface_.layout, painter_)
                              : RankingText(ranking, options_.top, surface_.layout, painter_));
  }

  void WritePage() {
    std::string error;
    if (!WriteHtml(options_.html_file, incidents_, logs_, ranking_.Finish(), &error))
      Complain(error);
  }

  const Options& options_;
  const Surface surface_;
  const Painter painter_;
  const Inputs inputs_;
  Progress progress_;
  std::optional<Symbols> symbols_;
  int status_ = kExitDone;
  uint64_t done_ = 0;  // bytes
  size_t texts_ = 0;   // incidents that were read for --all or the ranking
  FoldedStacks folded_;
  RankingBuilder ranking_;
  std::vector<Incident> incidents_;
  std::vector<std::string> logs_;  // packed, of incidents_
};

}  // namespace
}  // namespace report

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  static std::vector<char> buffer(report::kOutputBuffer);  // std::cout outlives main
  std::cout.rdbuf()->pubsetbuf(buffer.data(), static_cast<std::streamsize>(buffer.size()));
  int status = 0;
  try {
    report::Options options;
    if (report::ParseOptions(argc, argv, &options, &status))
      status = report::Program(options).Run();
  } catch (const std::exception& error) {
    std::cerr << "quorvel-report: " << error.what() << '\n';
    status = report::kExitUnread;
  }
  std::cout.flush();
  return status;
}
