#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>

#include "runeflow/platform/local_time_p.h"

namespace runeflow {
namespace {

constexpr std::int64_t kHour = 3600;
constexpr std::int64_t kDay = 24 * kHour;

std::chrono::year calendarYear(std::int64_t number) {
  constexpr auto kFirst = static_cast<int>(std::chrono::year::min());
  constexpr auto kLast = static_cast<int>(std::chrono::year::max());
  return std::chrono::year(static_cast<int>(std::clamp<std::int64_t>(number, kFirst, kLast)));
}

// Seconds east of UTC at an instant. Unlike mktime, localtime_r neither reads the zone anew on
// every call nor lets the last call colour the next.
std::int64_t offsetAtInstant(std::int64_t seconds) {
  const auto time = static_cast<std::time_t>(seconds);
  std::tm fields{};
  return localtime_r(&time, &fields) ? fields.tm_gmtoff : 0;
}

// The offset in force before a clock change near the local time, if the time exists under it.
std::int64_t offsetFromSystem(std::int64_t localSeconds) {
  const auto before = offsetAtInstant(localSeconds - kDay);
  if (offsetAtInstant(localSeconds - before) == before) return before;
  return offsetAtInstant(localSeconds + kDay);
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
  auto& cached = cached_[static_cast<std::size_t>(hour & 1)];
  if (cached.hour == hour) return cached.offset;
  const std::int64_t offset = offsetFromSystem(localSeconds);
  // An hour in which the clock changes is asked about time by time.
  const bool isSteady = offsetFromSystem(hour * kHour) == offset &&
                        offsetFromSystem(hour * kHour + kHour - 1) == offset;
  if (isSteady) cached = {hour, offset};
  return offset;
}

std::int64_t localYear(double secondsSinceEpoch) {
  const double seconds = std::floor(secondsSinceEpoch);
  constexpr double kFarFuture =
      9e17;  // well inside time_t; such years do not fit a calendar anyway
  const auto time = static_cast<std::time_t>(
      seconds == seconds ? std::clamp(seconds, -kFarFuture, kFarFuture) : 0.0);
  std::tm fields{};
  if (!localtime_r(&time, &fields)) return 1970;
  return std::int64_t{fields.tm_year} + 1900;
}

}  // namespace runeflow
