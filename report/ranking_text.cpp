#include "ranking_text.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "log_time.h"

namespace report {
namespace {

constexpr size_t kInShort = 10;  // incidents that follow the ranking
constexpr size_t kGap = 1;       // between columns
constexpr std::string_view kArrow = " < ";

enum Column { kCount, kPrograms, kWatch, kFirst, kLast, kReason, kFrames, kColumns };
using Cells = std::array<std::string, kColumns>;
using Widths = std::array<size_t, kColumns>;

// "11-22 21:13", in UTC.
std::string TimeText(std::optional<int64_t> milliseconds) {
  constexpr size_t kYear = 5, kMinutes = 11;
  if (!milliseconds) return "-";
  std::string text = IsoUtcText(*milliseconds).substr(kYear, kMinutes);
  text[text.find('T')] = ' ';
  return text;
}

template <typename List>
std::string Joined(const List& list, std::string_view separator) {
  return fmt::format("{}", fmt::join(list, separator));
}

Cells CellsOf(const RankedSignature& entry) {
  return {std::to_string(entry.count),
          Joined(entry.programs, ","),
          entry.watch.empty() ? "-" : entry.watch,
          TimeText(entry.first_ms),
          TimeText(entry.last_ms),
          std::string(entry.newest.reason.kind),
          entry.frames.empty() ? "-" : Joined(entry.frames, kArrow)};
}

// Each column as wide as its widest cell; where that is too much, texts are shortened down to these
// widths, in this order.
Widths FitWidths(const std::vector<Cells>& rows, size_t width) {
  struct Shrink {
    Column column;
    size_t to;
  };
  static constexpr Shrink kShrinks[] = {
      {kFrames, 40},  {kWatch, 16}, {kPrograms, 12}, {kFrames, 24}, {kWatch, 8},
      {kPrograms, 8}, {kFrames, 8}, {kReason, 6},    {kWatch, 4},   {kPrograms, 4}};
  Widths widths = {};
  for (const Cells& row : rows) {
    for (size_t i = 0; i < kColumns; ++i) widths[i] = std::max(widths[i], WidthOf(row[i]));
  }
  size_t total = kGap * (kColumns - 1);
  for (const size_t column : widths) total += column;
  for (const Shrink& shrink : kShrinks) {
    if (total <= width) break;
    const size_t spare = widths[shrink.column] - std::min(widths[shrink.column], shrink.to);
    const size_t taken = std::min(spare, total - width);
    widths[shrink.column] -= taken;
    total -= taken;
  }
  return widths;
}

std::string RowText(const Cells& cells, const Widths& widths) {
  std::string text;
  for (size_t i = 0; i < kColumns; ++i) {
    const std::string cell = Padded(cells[i], widths[i]);
    if (i == kCount) {
      const std::string shown = Shortened(cells[i], widths[i]);
      text += std::string(widths[i] - WidthOf(shown), ' ') + shown;
    } else {
      text += std::string(kGap, ' ') + cell;
    }
  }
  text.erase(text.find_last_not_of(' ') + 1);
  return text;
}

}  // namespace

std::string RankingText(const Ranking& ranking, size_t top, const TextLayout& layout,
                        const Painter& painter) {
  uint64_t incidents = 0;
  for (const RankedSignature& entry : ranking) incidents += entry.count;
  std::string text = painter.Alarm(fmt::format("{} incidents, {} signature{}", incidents,
                                               ranking.size(), ranking.size() == 1 ? "" : "s"));
  text += painter.Dim("  (times in UTC)") + "\n\n";
  std::vector<Cells> rows = {{"count", "program", "watch", "first", "last", "reason", "frames"}};
  const size_t shown = std::min(top, ranking.size());
  for (size_t i = 0; i < shown; ++i) rows.push_back(CellsOf(ranking[i]));
  const Widths widths = FitWidths(rows, layout.width);
  for (size_t i = 0; i < rows.size(); ++i) {
    text += (i == 0 ? painter.Heading(RowText(rows[i], widths)) : RowText(rows[i], widths)) + "\n";
  }
  if (shown < ranking.size()) {
    text += painter.Dim(fmt::format("{} more signatures: --top {}", ranking.size() - shown,
                                    ranking.size())) +
            "\n";
  }
  for (size_t i = 0; i < std::min(shown, kInShort); ++i) {
    text += '\n' +
            painter.Heading(fmt::format("{}. Count {}, the newest:", i + 1, ranking[i].count)) +
            '\n';
    text += ShortText(ranking[i].newest, layout, painter);
  }
  return text;
}

}  // namespace report
