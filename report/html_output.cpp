#include "html_output.h"

#include <fmt/format.h>

#include <random>
#include <string_view>

#include "html_data.h"
#include "html_file.h"
#include "page/page_text.h"

namespace report {
namespace {

// Allows the page's own script and style, and no others: a log's text cannot know the nonce.
std::string MakeNonce() {
  constexpr int kWords = 4;  // of 32 random bits
  std::random_device random;
  std::string nonce;
  for (int i = 0; i < kWords; ++i) nonce += fmt::format("{:08x}", random());
  return nonce;
}

void WriteLogs(const std::vector<std::string>& logs, ReplacedFile* file) {
  for (size_t i = 0; i < logs.size(); ++i) {
    file->Write(fmt::format("<script type=\"text/plain\" id=\"log-{}\">", i));
    file->Write(logs[i]);
    file->Write("</script>\n");
  }
}

}  // namespace

bool WriteHtml(const std::string& path, const std::vector<Incident>& incidents,
               const std::vector<std::string>& logs, const Ranking& ranking, std::string* error) {
  const std::string nonce = MakeNonce();
  ReplacedFile file(path);
  std::string_view rest = kPageHtml;  // "@" is in it only around a part's name
  while (!rest.empty()) {
    const size_t begin = rest.find('@');
    file.Write(rest.substr(0, begin));
    if (begin == std::string_view::npos) break;
    const size_t end = rest.find('@', begin + 1);
    const std::string_view name = rest.substr(begin + 1, end - begin - 1);
    if (name == "NONCE") file.Write(nonce);
    if (name == "STYLE") file.Write(kPageStyle);
    if (name == "SCRIPT") file.Write(kPageScript);
    if (name == "DATA") file.Write(HtmlData(incidents, ranking));
    if (name == "LOGS") WriteLogs(logs, &file);
    rest.remove_prefix(end + 1);
  }
  return file.Commit(error);
}

}  // namespace report
