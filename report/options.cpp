#include "options.h"

#include <CLI/CLI.hpp>
#include <map>

#include "safe_text.h"

namespace report {
namespace {

const std::map<std::string, Colour> kColours = {
    {"auto", Colour::kAuto}, {"always", Colour::kAlways}, {"never", Colour::kNever}};

// Each of these checks returns what is wrong with a text; an empty string when it is right.

std::string CheckNotEmpty(const std::string& text) {
  return text.empty() ? "a name is missing" : "";
}

std::string CheckLength(const std::string& text) {
  const bool number = !text.empty() && text.find_first_not_of("0123456789") == text.npos;
  const bool zero = text.find_first_not_of('0') == text.npos;
  return number && !zero ? "" : "a number from 1 on, not " + text;
}

std::string CheckColour(const std::string& text) {
  return kColours.count(text) != 0 ? "" : "auto, always or never, not " + text;
}

std::string CheckLabel(const std::string& text) {
  const size_t equals = text.find('=');
  return equals == text.npos || equals == 0 ? "a label is KEY=VALUE, not " + text : std::string();
}

std::string FailureText(const CLI::App*, const CLI::Error& error) {
  return "quorvel-report: " + SafeText(error.what()) + "\nSee quorvel-report --help.\n";
}

}  // namespace

bool ParseOptions(int argc, char** argv, Options* options, int* exit_status) {
  CLI::App app("Reads incident logs of libquorvel and tells why work hung.", "quorvel-report");
  app.failure_message(FailureText);
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
  formats->add_option("--html", options->html_file, "One self-contained page")
      ->type_name("FILE")
      ->check(CheckNotEmpty);
  formats->add_flag("--ndk", ndk, "The logs as the device kit's stack symbolisers read them");
  formats->require_option(0, 1);

  std::vector<std::string> labels;
  app.add_option("--symbols", options->symbol_directories,
                 "Directory of unstripped files, which give names, inlined calls and source lines "
                 "(repeatable)")
      ->type_name("DIR")
      ->check(CLI::Validator(CLI::ExistingDirectory).description(""))
      ->expected(1)
      ->allow_extra_args(false)  // "--label KEY=VALUE -- PATH": what follows is no label
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_option("--label", labels, "A label for each line of --json and --rows (repeatable)")
      ->type_name("KEY=VALUE")
      ->check(CheckLabel)
      ->expected(1)
      ->allow_extra_args(false)  // "--label KEY=VALUE -- PATH": what follows is no label
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  std::string colour = "auto";
  app.add_option("--color", colour, "auto: only on a terminal, not with NO_COLOR set")
      ->type_name("auto|always|never")
      ->check(CheckColour);
  app.add_option("--top", options->top, "Length of the ranking (20)")
      ->type_name("N")
      ->check(CheckLength);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const bool asked = error.get_exit_code() == 0;  // --help, --version
    app.exit(error);
    *exit_status = asked ? 0 : kExitWrongCall;
    return false;
  }
  options->colour = kColours.at(colour);
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
