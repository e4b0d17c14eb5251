#include "runeflow/platform/local_time.h"

#include <algorithm>
#include <ctime>

namespace runeflow {
namespace {

constexpr std::int64_t kHour = 3600;
constexpr std::int64_t kDay = 24 * kHour;

std::chrono::year calendarYear(std::int64_t number) {
  constexpr auto kFirst = static_cast<int>(std::chrono::year::min());
  constexpr auto kLast = static_cast<int>(std::chrono::year::max());
  return std::chrono::year(static_cast<int>(std::clamp<std::int64_t>(number, kFirst, kLast)));
}

// What mktime makes of a local time, given as seconds of the local clock.
std::int64_t offsetFromSystem(std::int64_t localSeconds) {
  const std::chrono::sys_seconds local{std::chrono::seconds(localSeconds)};
  const auto day = std::chrono::floor<std::chrono::days>(local);
  const std::chrono::year_month_day date(day);
  std::tm fields{};
  fields.tm_year = static_cast<int>(date.year()) - 1900;
  fields.tm_mon = static_cast<int>(static_cast<unsigned>(date.month())) - 1;
  fields.tm_mday = static_cast<int>(static_cast<unsigned>(date.day()));
  const std::chrono::hh_mm_ss timeOfDay(local - day);
  fields.tm_hour = static_cast<int>(timeOfDay.hours().count());
  fields.tm_min = static_cast<int>(timeOfDay.minutes().count());
  fields.tm_sec = static_cast<int>(timeOfDay.seconds().count());
  fields.tm_isdst = -1;
  return localSeconds - std::mktime(&fields);
}

}  // namespace

std::int64_t LocalTimeZone::secondsSinceEpoch(const LocalDateTime& time) {
  const std::chrono::sys_days firstOfMonth{calendarYear(time.year) /
                                           std::chrono::month(time.month) / 1};
  const std::int64_t days = firstOfMonth.time_since_epoch().count() + time.day - 1;
  const std::int64_t local = days * kDay + time.hour * kHour + time.minute * 60 + time.second;
  return local - offsetAt(local);
}

std::int64_t LocalTimeZone::offsetAt(std::int64_t localSeconds) {
  const std::int64_t hour =
      std::chrono::floor<std::chrono::hours>(std::chrono::seconds(localSeconds)).count();
  if (hour == cachedHour_) return cachedOffset_;
  const std::int64_t offset = offsetFromSystem(localSeconds);
  // An hour in which the clock changes is asked about time by time.
  const bool isSteady = offsetFromSystem(hour * kHour) == offset &&
                        offsetFromSystem(hour * kHour + kHour - 1) == offset;
  if (isSteady) {
    cachedHour_ = hour;
    cachedOffset_ = offset;
  }
  return offset;
}

std::int64_t localYear(Timestamp timestamp) {
  const double seconds = timestamp.time_since_epoch().count();
  constexpr double kFarFuture =
      9e17;  // well inside time_t; such years do not fit a calendar anyway
  const auto time = static_cast<std::time_t>(
      seconds == seconds ? std::clamp(seconds, -kFarFuture, kFarFuture) : 0.0);
  std::tm fields{};
  if (!localtime_r(&time, &fields)) return 1970;
  return std::int64_t{fields.tm_year} + 1900;
}

}  // namespace runeflow
