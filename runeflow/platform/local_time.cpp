// SPDX-License-Identifier: MIT
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

// Returns the seconds east of UTC that are in force at an instant. Uses localtime_r instead of
// mktime: mktime rereads the zone on every call, and its answer for an ambiguous time can depend on
// the previous call.
std::int64_t offsetAtInstant(std::int64_t seconds) {
  const auto time = static_cast<std::time_t>(seconds);
  std::tm fields{};
  return localtime_r(&time, &fields) ? fields.tm_gmtoff : 0;
}

// Returns the offset in force about a day earlier if the local time exists under that offset, and
// otherwise the offset in force about a day later. The two differ only near a clock change.
std::int64_t offsetFromSystem(std::int64_t localSeconds) {
  const auto before = offsetAtInstant(localSeconds - kDay);
  if (offsetAtInstant(localSeconds - before) == before) return before;
  return offsetAtInstant(localSeconds + kDay);
}

}  // namespace

std::int64_t LocalTimeZone::secondsSinceEpoch(const LocalDateTime& time) {
  const std::chrono::sys_days firstOfMonth{calendarYear(time.year) /
                                           std::chrono::month(time.month) / 1};
  // The count may be an int, which must not be added to an unsigned day: it is negative before
  // 1970.
  const std::int64_t first = firstOfMonth.time_since_epoch().count();
  const std::int64_t days = first + time.day - 1;
  const std::int64_t local = days * kDay + time.hour * kHour + time.minute * 60 + time.second;
  return local - offsetAt(local);
}

std::int64_t LocalTimeZone::offsetAt(std::int64_t localSeconds) {
  const std::int64_t hour =
      std::chrono::floor<std::chrono::hours>(std::chrono::seconds(localSeconds)).count();
  auto& cached = cached_[static_cast<std::size_t>(hour & 1)];
  if (cached.hour == hour) return cached.offset;
  const std::int64_t offset = offsetFromSystem(localSeconds);
  // An hour in which the clock changes is not cached: its times have different offsets.
  const bool isSteady = offsetFromSystem(hour * kHour) == offset &&
                        offsetFromSystem(hour * kHour + kHour - 1) == offset;
  if (isSteady) cached = {hour, offset};
  return offset;
}

std::int64_t localYear(double secondsSinceEpoch) {
  const double seconds = std::floor(secondsSinceEpoch);
  constexpr double kFarFuture = 9e17;  // inside time_t's range, far outside the calendar's
  const auto time = static_cast<std::time_t>(
      seconds == seconds ? std::clamp(seconds, -kFarFuture, kFarFuture) : 0.0);
  std::tm fields{};
  if (!localtime_r(&time, &fields)) return 1970;
  return std::int64_t{fields.tm_year} + 1900;
}

}  // namespace runeflow
