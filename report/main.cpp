// quorvel-report: reads incident logs and tells why work hung.
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <iostream>

#include "html_output.h"
#include "input_files.h"
#include "json_output.h"
#include "log_reader.h"
#include "options.h"
#include "safe_text.h"
#include "symbols.h"

int main(int argc, char** argv) {
  report::Options options;
  int status = 0;
  if (!report::ParseOptions(argc, argv, &options, &status)) return status;
  const report::Inputs inputs = report::FindLogs(options.paths, options.recursive);
  const bool to_html = options.format == report::Format::kHtml;
  report::LogReader reader(nullptr, to_html);
  std::vector<report::Incident> incidents;
  for (const std::string& file : inputs.files) {
    const int fd = file == "-" ? dup(STDIN_FILENO) : open(file.c_str(), O_RDONLY | O_CLOEXEC);
    report::Incident incident;
    std::string error = strerror(errno);
    if (fd == -1 || !reader.Read(fd, file, &incident, &error)) {
      std::cerr << "quorvel-report: " << error << '\n';
      status = 1;
    } else if (to_html) {
      incidents.push_back(std::move(incident));
    } else if (options.format == report::Format::kRows) {
      report::WriteRow(incident, options.labels, &std::cout);
    } else {
      report::WriteJson(incident, options.labels, &std::cout);
    }
    if (fd != -1) close(fd);
  }
  std::string error;
  if (to_html && !report::WriteHtml(options.html_file, incidents, {}, &error)) {
    std::cerr << "quorvel-report: " << error << '\n';
    status = 1;
  }
  return status;
}
