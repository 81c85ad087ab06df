#include "local_time.h"

#include <atomic>

#include "fork_child.h"

extern "C" {

char* __real_ctime_r(const time_t* seconds, char* text);
char* __wrap_ctime_r(const time_t* seconds, char* text);

}  // extern "C"

namespace {

constexpr long kSecondsPerMinute = 60;
constexpr long kSecondsPerHour = 60 * kSecondsPerMinute;
constexpr long kSecondsPerDay = 24 * kSecondsPerHour;
constexpr long kDaysPerWeek = 7;
constexpr long kEpochWeekday = 4;  // 1970-01-01 was a Thursday

// The calendar is counted in eras of 400 years that begin on a first of March, so that a leap day
// is the last day of its year. The method is that of H. Hinnant's "chrono-Compatible Low-Level Date
// Algorithms" (civil_from_days).
constexpr long kYearsPerEra = 400;
constexpr long kDaysPerYear = 365;
constexpr long kDaysPer4Years = 4 * kDaysPerYear + 1;
constexpr long kDaysPerCentury = 25 * kDaysPer4Years - 1;
constexpr long kDaysPerEra = 4 * kDaysPerCentury + 1;
constexpr long kEpochDay = 719468;  // days from 0000-03-01 to 1970-01-01
// March to July have as many days as August to December.
constexpr long kMonthsPerCycle = 5;
constexpr long kDaysPerCycle = 153;
constexpr long kMonthsFromJanToMar = 2;
constexpr long kMonthsFromMarToJan = 10;
constexpr long kTmYearBase = 1900;

// The first of January of these years, in UTC.
constexpr time_t kYear1 = -62135596800;
constexpr time_t kYear10000 = 253402300800;

const long g_utc_offset = [] {
  const time_t now = time(nullptr);
  struct tm local = {};
  return localtime_r(&now, &local) != nullptr ? local.tm_gmtoff : 0L;
}();

std::atomic<bool> g_forked{false};

// The remainder that is never negative.
constexpr long Modulo(long value, long divisor) {
  return (value % divisor + divisor) % divisor;
}

// Sets the date that lies so many days after 1970-01-01.
void SetDate(long days, struct tm* date) {
  const long day_of_era = Modulo(days + kEpochDay, kDaysPerEra);
  const long era = (days + kEpochDay - day_of_era) / kDaysPerEra;
  const long leap_days_before = day_of_era / (kDaysPer4Years - 1) - day_of_era / kDaysPerCentury +
                                day_of_era / (kDaysPerEra - 1);
  const long year_of_era = (day_of_era - leap_days_before) / kDaysPerYear;
  const long day_of_year =
      day_of_era - (kDaysPerYear * year_of_era + year_of_era / 4 - year_of_era / 100);
  const long month = (kMonthsPerCycle * day_of_year + 2) / kDaysPerCycle;  // 0 is March
  const bool in_next_year = month >= kMonthsFromMarToJan;
  const long month_begin = (kDaysPerCycle * month + 2) / kMonthsPerCycle;
  date->tm_mday = static_cast<int>(day_of_year - month_begin + 1);
  date->tm_mon =
      static_cast<int>(in_next_year ? month - kMonthsFromMarToJan : month + kMonthsFromJanToMar);
  date->tm_year =
      static_cast<int>(era * kYearsPerEra + year_of_era + (in_next_year ? 1 : 0) - kTmYearBase);
  date->tm_wday = static_cast<int>(Modulo(days + kEpochWeekday, kDaysPerWeek));
}

}  // namespace

void ForgetZoneLockInChild() {
  g_forked = true;
}

struct tm LocalTimeAt(time_t seconds) {
  const long local = seconds + g_utc_offset;
  const long second_of_day = Modulo(local, kSecondsPerDay);
  struct tm result = {};
  SetDate((local - second_of_day) / kSecondsPerDay, &result);
  result.tm_hour = static_cast<int>(second_of_day / kSecondsPerHour);
  result.tm_min = static_cast<int>(second_of_day % kSecondsPerHour / kSecondsPerMinute);
  result.tm_sec = static_cast<int>(second_of_day % kSecondsPerMinute);
  return result;
}

// The library's calls of ctime_r come here. In the child of a fork the C library's lock on the time
// zone may be held by a thread that does not exist there.
char* __wrap_ctime_r(const time_t* seconds, char* text) {
  if (!g_forked) return __real_ctime_r(seconds, text);
  if (*seconds < kYear1 || *seconds >= kYear10000 - kSecondsPerDay) return nullptr;
  const struct tm local = LocalTimeAt(*seconds);
  return asctime_r(&local, text);
}
