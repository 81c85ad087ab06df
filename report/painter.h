// Text for a terminal: colours and widths.
#pragma once

#include <string>
#include <string_view>

namespace report {

// Paints safe text, or leaves it as it is where the output shows no colours.
class Painter {
 public:
  explicit Painter(bool colours) : colours_(colours) {}

  std::string Bold(std::string_view text) const { return Paint("1", text); }
  std::string Dim(std::string_view text) const { return Paint("2", text); }
  std::string Alarm(std::string_view text) const { return Paint("1;31", text); }
  std::string Warning(std::string_view text) const { return Paint("33", text); }
  std::string Heading(std::string_view text) const { return Paint("1;36", text); }

 private:
  std::string Paint(std::string_view code, std::string_view text) const;

  bool colours_;
};

// How many columns a text takes; each character is taken for one column.
size_t WidthOf(std::string_view text);

// The text in at most so many columns: an ellipsis replaces its end where it is longer.
std::string Shortened(std::string_view text, size_t width);

// The same for a text whose end tells more.
std::string ShortenedInFront(std::string_view text, size_t width);

// The text in exactly so many columns.
std::string Padded(std::string_view text, size_t width);

}  // namespace report
