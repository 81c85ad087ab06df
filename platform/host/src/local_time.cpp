#include "local_time.h"

#include <pthread.h>

extern "C" {

char* __real_ctime_r(const time_t* seconds, char* text);
char* __wrap_ctime_r(const time_t* seconds, char* text);

}  // extern "C"

namespace {

const long g_utc_offset = [] {
  const time_t now = time(nullptr);
  struct tm local = {};
  return localtime_r(&now, &local) != nullptr ? local.tm_gmtoff : 0L;
}();

bool g_forked = false;

[[maybe_unused]] const int g_fork_handler =
    pthread_atfork(nullptr, nullptr, [] { g_forked = true; });

}  // namespace

// The calendar is counted in eras of 400 years that begin in March.
struct tm LocalTimeAt(time_t seconds) {
  constexpr long kDay = 86400;
  const long local = seconds + g_utc_offset;
  const long second_of_day = ((local % kDay) + kDay) % kDay;
  const long days = (local - second_of_day) / kDay;  // since 1970-01-01, a Thursday
  const long day_of_era = ((days + 719468) % 146097 + 146097) % 146097;
  const long era = (days + 719468 - day_of_era) / 146097;
  const long year_of_era =
      (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
  const long day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
  const long month = (5 * day_of_year + 2) / 153;  // from March
  struct tm result = {};
  result.tm_sec = static_cast<int>(second_of_day % 60);
  result.tm_min = static_cast<int>(second_of_day / 60 % 60);
  result.tm_hour = static_cast<int>(second_of_day / 3600);
  result.tm_mday = static_cast<int>(day_of_year - (153 * month + 2) / 5 + 1);
  result.tm_mon = static_cast<int>(month < 10 ? month + 2 : month - 10);
  result.tm_year = static_cast<int>(era * 400 + year_of_era + (month < 10 ? 0 : 1) - 1900);
  result.tm_wday = static_cast<int>(((days + 4) % 7 + 7) % 7);
  return result;
}

// In the child of a fork the lock may be held by a thread that is not there.
char* __wrap_ctime_r(const time_t* seconds, char* text) {
  constexpr time_t kYear10000 = 253402300800, kYear1 = -62135596800;
  if (!g_forked) return __real_ctime_r(seconds, text);
  if (*seconds < kYear1 || *seconds >= kYear10000 - 86400) return nullptr;
  const struct tm local = LocalTimeAt(*seconds);
  return asctime_r(&local, text);
}
