// SPDX-License-Identifier: MIT

// Converts local wall-clock times of the machine's time zone to instants. Most conversions use a
// cached offset.
#pragma once

#include <array>
#include <cstdint>

namespace runeflow {

// A date and time of day on the Gregorian calendar in local time. The day and the time of day may
// exceed their unit: 30 February is 1 or 2 March, second 61 belongs to the next minute. Years are
// limited to std::chrono::year's range, -32767 to 32767.
struct LocalDateTime {
  std::int64_t year;
  unsigned month;  // 1 to 12
  unsigned day;    // 1 to 31
  std::int64_t hour;
  std::int64_t minute;
  std::int64_t second;
};

// Converts local times to instants. The zone is the system's (TZ or /etc/localtime), which the C
// library reads once. The object caches the offsets of the last even hour and the last odd hour
// that it was asked about: a conversion with a cached offset needs no call to the C library. Two
// threads must not use the same object at the same time.
class LocalTimeZone {
 public:
  // Returns whole seconds since 1970-01-01T00:00:00Z. If a clock change repeats the local time, the
  // result is its first occurrence. If a clock change skips the local time, the result is computed
  // with the offset in force after the change.
  std::int64_t secondsSinceEpoch(const LocalDateTime& time);

 private:
  struct Cached {
    std::int64_t hour = INT64_MIN;  // hours since 1970 on the local clock
    std::int64_t offset = 0;        // seconds east of UTC
  };

  std::int64_t offsetAt(std::int64_t localSeconds);

  std::array<Cached, 2> cached_;  // [hour & 1]: records around a full hour need two entries
};

// Returns the calendar year, in local time, of an instant in seconds since 1970-01-01T00:00:00Z.
// NaN counts as 0 seconds. Returns 1970 if the instant's year does not fit the system's calendar,
// which counts years in an int.
std::int64_t localYear(double secondsSinceEpoch);

}  // namespace runeflow
