// Local wall-clock times of the machine's time zone, at the price of an addition.
#pragma once

#include <chrono>
#include <cstdint>

#include "runeflow/model/log_row.h"

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

// Turns local times into instants. The zone is the system's (TZ or /etc/localtime, read once by the
// C library); the offset of the last hour asked about is kept, so that a run of neighbouring times
// costs one look-up an hour. One object is for one thread.
class LocalTimeZone {
 public:
  // Whole seconds since 1970-01-01T00:00:00Z. A time that a clock change skips or repeats is
  // resolved as mktime does.
  std::int64_t secondsSinceEpoch(const LocalDateTime& time);

 private:
  std::int64_t offsetAt(std::int64_t localSeconds);

  std::int64_t cachedHour_ = INT64_MIN;  // hours since 1970 on the local clock
  std::int64_t cachedOffset_ = 0;        // seconds east of UTC
};

// The calendar year of an instant in local time.
std::int64_t localYear(Timestamp timestamp);

}  // namespace runeflow
