#include "options.h"

#include <CLI/CLI.hpp>
#include <map>

#include "safe_text.h"

namespace report {
namespace {

const std::map<std::string, Colour> kColours = {
    {"auto", Colour::kAuto}, {"always", Colour::kAlways}, {"never", Colour::kNever}};

// "KEY=VALUE"; what is wrong with it, else.
std::string CheckLabel(const std::string& text) {
  const size_t equals = text.find('=');
  return equals == text.npos || equals == 0 ? "a label is KEY=VALUE, not " + text : std::string();
}

}  // namespace

bool ParseOptions(int argc, char** argv, Options* options, int* exit_status) {
  CLI::App app("Reads incident logs of libquorvel and tells why work hung.", "quorvel-report");
  app.set_version_flag("--version", "quorvel-report " QUORVEL_REPORT_VERSION);
  app.add_option("PATH", options->paths,
                 "Log files, directories (their quorvel@*.log), or - for the standard input")
      ->required();
  app.add_flag("--recursive", options->recursive, "Also the logs below the directories");

  app.add_flag("--all", options->all, "Every incident in full, as text");

  bool json = false, rows = false, folded = false, ndk = false;
  CLI::Option_group* const formats = app.add_option_group("output", "What is written (one of)");
  formats->add_flag("--json", json, "One JSON object a line for each incident");
  formats->add_flag("--rows", rows, "One flat JSON object a line for each incident");
  formats->add_flag("--folded", folded, "Stacks of all threads, a line each, with their count");
  formats->add_option("--html", options->html_file, "One self-contained page")->type_name("FILE");
  formats->add_flag("--ndk", ndk, "The logs as the device kit's stack symbolisers read them");
  formats->require_option(0, 1);

  std::vector<std::string> labels;
  app.add_option("--symbols", options->symbol_directories,
                 "Directory of unstripped files, which give names, inlined calls and source lines "
                 "(repeatable)")
      ->type_name("DIR")
      ->check(CLI::ExistingDirectory)
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_option("--label", labels, "A label for each line of --json and --rows (repeatable)")
      ->type_name("KEY=VALUE")
      ->check(CheckLabel)
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_option("--color", options->colour, "auto: only on a terminal, not with NO_COLOR set")
      ->type_name("auto|always|never")
      ->transform(CLI::Transformer(kColours));
  app.add_option("--top", options->top, "Length of the ranking (20)")->check(CLI::PositiveNumber);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const bool asked = error.get_exit_code() == 0;  // --help, --version
    app.exit(error);
    *exit_status = asked ? 0 : kExitWrongCall;
    return false;
  }
  if (json) options->format = Format::kJson;
  if (rows) options->format = Format::kRows;
  if (folded) options->format = Format::kFolded;
  if (ndk) options->format = Format::kNdk;
  if (!options->html_file.empty()) options->format = Format::kHtml;
  for (const std::string& label : labels) {
    const size_t equals = label.find('=');
    options->labels.emplace_back(SafeText(label.substr(0, equals)),
                                 SafeText(label.substr(equals + 1)));
  }
  return true;
}

}  // namespace report
