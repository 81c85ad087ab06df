#include "log_time.h"

#include <fmt/format.h>

#include <array>
#include <charconv>

namespace report {
namespace {

constexpr int64_t kSecondsPerDay = 24 * 60 * 60;
constexpr int64_t kMillisecondsPerSecond = 1000;
constexpr int kFirstYear = 1970;
constexpr int kLastYear = 9999;
constexpr size_t kMaxFileTimeDigits = 15;  // the year 33658: no overflow anywhere

struct Date {
  int64_t year;
  int month;
  int day;
};

// Both by the proleptic Gregorian calendar, in eras of 400 years that begin on the 1st of March.
constexpr int64_t kDaysPerEra = 146097;
constexpr int64_t kDaysToEpoch = 719468;  // from 0000-03-01 to 1970-01-01

int64_t DaysSinceEpoch(const Date& date) {
  const int64_t year = date.month <= 2 ? date.year - 1 : date.year;
  const int64_t era = year / 400;
  const int64_t year_of_era = year - era * 400;
  const int64_t day_of_year = (153 * ((date.month + 9) % 12) + 2) / 5 + date.day - 1;
  return era * kDaysPerEra + year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year -
         kDaysToEpoch;
}

Date DateOf(int64_t days_since_epoch) {
  const int64_t days = days_since_epoch + kDaysToEpoch;
  const int64_t era = days / kDaysPerEra;
  const int64_t day_of_era = days - era * kDaysPerEra;
  const int64_t year_of_era =
      (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
  const int64_t day_of_year =
      day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
  const int64_t month_from_march = (5 * day_of_year + 2) / 153;
  const int day = static_cast<int>(day_of_year - (153 * month_from_march + 2) / 5 + 1);
  const int month =
      static_cast<int>(month_from_march < 10 ? month_from_march + 3 : month_from_march - 9);
  return {year_of_era + era * 400 + (month <= 2 ? 1 : 0), month, day};
}

// The number in these characters of the text, of which the first may be blank; -1 if it is none.
int NumberAt(std::string_view text, size_t place, size_t length) {
  std::string_view digits = text.substr(place, length);
  if (digits.front() == ' ') digits.remove_prefix(1);
  int value = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  return error == std::errc() && end == digits.data() + digits.size() && value >= 0 ? value : -1;
}

}  // namespace

std::optional<int64_t> ParseClockText(std::string_view text) {
  static constexpr std::string_view kDays = "SunMonTueWedThuFriSat";
  static constexpr std::string_view kMonths = "JanFebMarAprMayJunJulAugSepOctNovDec";
  static constexpr std::string_view kShape = "Www Mmm dd hh:mm:ss yyyy";
  if (text.size() != kShape.size()) return std::nullopt;
  for (size_t i = 0; i < kShape.size(); ++i) {
    if ((kShape[i] == ' ' || kShape[i] == ':') && text[i] != kShape[i]) return std::nullopt;
  }
  const size_t weekday = kDays.find(text.substr(0, 3));
  const size_t month = kMonths.find(text.substr(4, 3));
  if (weekday == kDays.npos || weekday % 3 != 0 || month == kMonths.npos || month % 3 != 0) {
    return std::nullopt;
  }
  const int day = NumberAt(text, 8, 2), hour = NumberAt(text, 11, 2),
            minute = NumberAt(text, 14, 2);
  const int second = NumberAt(text, 17, 2), year = NumberAt(text, 20, 4);
  if (day < 1 || day > 31 || hour < 0 || hour > 23 || minute < 0 || minute > 59 || second < 0 ||
      second > 60 || year < kFirstYear || year > kLastYear) {
    return std::nullopt;
  }
  const int64_t days = DaysSinceEpoch({year, static_cast<int>(month / 3) + 1, day});
  return days * kSecondsPerDay + hour * 3600 + minute * 60 + second;
}

std::optional<int64_t> ParseFileTime(std::string_view path) {
  static constexpr std::string_view kPrefix = "quorvel@";
  static constexpr std::string_view kSuffix = ".log";
  const size_t prefix = path.substr(path.rfind('/') + 1).rfind(kPrefix);
  if (prefix == path.npos) return std::nullopt;
  const std::string_view rest = path.substr(path.rfind('/') + 1 + prefix + kPrefix.size());
  const size_t digits = rest.find_first_not_of("0123456789");
  if (digits == rest.npos || digits == 0 || digits > kMaxFileTimeDigits ||
      rest.substr(digits, kSuffix.size()) != kSuffix) {
    return std::nullopt;
  }
  int64_t value = 0;
  std::from_chars(rest.data(), rest.data() + digits, value);
  return value;
}

std::string IsoText(int64_t seconds) {
  int64_t days = seconds / kSecondsPerDay;
  if (seconds % kSecondsPerDay < 0) --days;
  const int64_t second = seconds - days * kSecondsPerDay;
  const Date date = DateOf(days);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", date.year, date.month, date.day,
                     second / 3600, second / 60 % 60, second % 60);
}

std::string IsoUtcText(int64_t milliseconds) {
  return fmt::format("{}.{:03}Z", IsoText(milliseconds / kMillisecondsPerSecond),
                     milliseconds % kMillisecondsPerSecond);
}

}  // namespace report
