// Local wall-clock times of the machine's time zone, at the price of an addition.
#pragma once

#include <array>
#include <cstdint>

namespace runeflow {

// A date and time of day on the Gregorian calendar in local time. Fields may overflow their unit:
// 30 February is 1 or 2 March, second 61 belongs to the next minute.
struct LocalDateTime {
  std::int64_t year;
  unsigned month;  // 1 to 12
  unsigned day;    // 1 to 31
  std::int64_t hour;
  std::int64_t minute;
  std::int64_t second;
};

// Turns local times into instants. The zone is the system's (TZ or /etc/localtime), which the C
// library reads once; the offsets of the last hours asked about are kept, so that neighbouring
// times cost an addition each. One object is for one thread.
class LocalTimeZone {
 public:
  // Whole seconds since 1970-01-01T00:00:00Z. Of a time that a clock change repeats it is the
  // first; one that a change skips is read with the offset after it.
  std::int64_t secondsSinceEpoch(const LocalDateTime& time);

 private:
  struct Cached {
    std::int64_t hour = INT64_MIN;  // hours since 1970 on the local clock
    std::int64_t offset = 0;        // seconds east of UTC
  };

  std::int64_t offsetAt(std::int64_t localSeconds);

  std::array<Cached, 2> cached_;  // for even and odd hours: lines around a full hour need both
};

// The calendar year of an instant in local time. NaN is taken for 1970, and an instant beyond the
// range of the system's calendar for its nearest end.
std::int64_t localYear(double secondsSinceEpoch);

}  // namespace runeflow
