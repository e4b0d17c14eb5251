// SPDX-License-Identifier: MIT
#include "host/time_text.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <ctime>
#include <optional>
#include <string_view>

#include "host/failure.h"

namespace host {
namespace {

constexpr std::int64_t kMicroseconds = 1'000'000;  // in a second
constexpr std::int64_t kDay = 86'400;              // seconds

[[noreturn]] void failAsNoTime(const std::string& text) {
  fail(
      "'{}' is not a time; write 2026-03-17T14:05 (local time; Z or +01:00 behind it names a "
      "zone), 14:05 for today, -15m for 15 minutes ago, or end-15m for 15 minutes before the "
      "newest record",
      text);
}

// Takes pieces off the front of a text. A function that does not find its piece takes nothing.
class Reader {
 public:
  explicit Reader(std::string_view text) : rest_(text) {}

  bool isAtEnd() const { return rest_.empty(); }

  bool take(std::string_view piece) {
    if (!rest_.starts_with(piece)) return false;
    rest_.remove_prefix(piece.size());
    return true;
  }

  bool takeOneOf(std::string_view characters) {
    if (rest_.empty() || !characters.contains(rest_.front())) return false;
    rest_.remove_prefix(1);
    return true;
  }

  std::optional<int> digits(std::size_t count) {
    if (digitsAhead() < count) return std::nullopt;
    int number = 0;
    for (const char digit : rest_.substr(0, count)) number = number * 10 + (digit - '0');
    rest_.remove_prefix(count);
    return number;
  }

  // Takes all digits. Absent if there is none; the largest number if they do not fit 64 bits.
  std::optional<std::int64_t> number() {
    const auto count = digitsAhead();
    if (count == 0) return std::nullopt;
    std::int64_t number = 0;
    for (const char digit : rest_.substr(0, count)) {
      if (__builtin_mul_overflow(number, 10, &number) ||
          __builtin_add_overflow(number, digit - '0', &number)) {
        number = INT64_MAX;
        break;
      }
    }
    rest_.remove_prefix(count);
    return number;
  }

  // Takes all digits as a fraction of a second, in microseconds.
  std::optional<std::int64_t> fraction() {
    const auto count = digitsAhead();
    if (count == 0) return std::nullopt;
    std::int64_t microseconds = 0;
    for (std::size_t place = 0; place < 6; ++place) {
      microseconds = microseconds * 10 + (place < count ? rest_[place] - '0' : 0);
    }
    rest_.remove_prefix(count);
    return microseconds;
  }

 private:
  std::size_t digitsAhead() const {
    return std::min(rest_.find_first_not_of("0123456789"), rest_.size());
  }

  std::string_view rest_;
};

struct TimeOfDay {
  std::int64_t seconds = 0;       // since midnight
  std::int64_t microseconds = 0;  // after them
};

using Days = std::chrono::sys_days;

std::optional<Days> takeDate(Reader& reader, const std::string& text) {
  const auto year = reader.digits(4);
  if (!year || !reader.take("-")) return std::nullopt;
  const auto month = reader.digits(2);
  if (!month || !reader.take("-")) return std::nullopt;
  const auto day = reader.digits(2);
  if (!day) return std::nullopt;
  const std::chrono::year_month_day date{std::chrono::year(*year),
                                         std::chrono::month(static_cast<unsigned>(*month)),
                                         std::chrono::day(static_cast<unsigned>(*day))};
  if (!date.ok()) fail("'{}' is not a time: the calendar has no such day", text);
  return Days(date);
}

std::optional<TimeOfDay> takeTimeOfDay(Reader& reader, const std::string& text) {
  const auto hour = reader.digits(2);
  if (!hour || !reader.take(":")) return std::nullopt;
  const auto minute = reader.digits(2);
  if (!minute) return std::nullopt;
  TimeOfDay time;
  std::optional<int> second = 0;
  if (reader.take(":")) {
    second = reader.digits(2);
    if (!second) return std::nullopt;
    if (reader.takeOneOf(".,")) {
      const auto fraction = reader.fraction();
      if (!fraction) return std::nullopt;
      time.microseconds = *fraction;
    }
  }
  time.seconds = (std::int64_t{*hour} * 60 + *minute) * 60 + *second;
  const bool isEndOfDay = time.seconds == kDay && time.microseconds == 0 && *hour == 24;
  if ((*hour > 23 || *minute > 59 || *second > 59) && !isEndOfDay) {
    fail("'{}' is not a time: no clock shows this time of day", text);
  }
  return time;
}

// Takes Z, +HH, +HH:MM or +HHMM, or the same with a minus, and returns seconds east of UTC. Absent
// if the text goes on otherwise.
std::optional<std::int64_t> takeZone(Reader& reader, const std::string& text) {
  if (reader.takeOneOf("Zz")) return 0;
  const bool isEast = reader.take("+");
  if (!isEast && !reader.take("-")) return std::nullopt;
  const auto hours = reader.digits(2);
  if (!hours) failAsNoTime(text);
  std::optional<int> minutes = 0;
  const bool hasColon = reader.take(":");
  if (hasColon || !reader.isAtEnd()) minutes = reader.digits(2);
  if (!minutes) failAsNoTime(text);
  if (*hours > 23 || *minutes > 59) fail("'{}' is not a time: no zone is that far from UTC", text);
  const std::int64_t offset = (std::int64_t{*hours} * 60 + *minutes) * 60;
  return isEast ? offset : -offset;
}

// Returns the seconds east of UTC that are in force at an instant. Does not use mktime, because its
// answer for a local time that occurs twice can depend on the previous call.
std::int64_t localOffsetAt(std::int64_t seconds) {
  const std::time_t time = seconds;
  std::tm fields{};
  return localtime_r(&time, &fields) ? fields.tm_gmtoff : 0;
}

// Returns the offset of a day earlier if the local time exists with it, and otherwise the offset of
// a day later. They differ only near a change of the clock.
std::int64_t offsetOfLocal(std::int64_t localSeconds) {
  const auto before = localOffsetAt(localSeconds - kDay);
  if (localOffsetAt(localSeconds - before) == before) return before;
  return localOffsetAt(localSeconds + kDay);
}

Days dayOf(std::int64_t localSeconds) {
  return std::chrono::floor<std::chrono::days>(
      std::chrono::sys_seconds(std::chrono::seconds(localSeconds)));
}

std::optional<std::int64_t> calendarTime(const std::string& text, std::int64_t now) {
  Reader reader(text);
  const auto date = takeDate(reader, text);
  std::optional<TimeOfDay> time = TimeOfDay();
  std::optional<std::int64_t> zone;
  if (!date || !reader.isAtEnd()) {
    if (date && !reader.takeOneOf("Tt ")) return std::nullopt;
    if (!date) reader = Reader(text);
    time = takeTimeOfDay(reader, text);
    if (!time) return std::nullopt;
    zone = takeZone(reader, text);
    if (!reader.isAtEnd()) return std::nullopt;
  }
  const auto nowSeconds = std::chrono::floor<std::chrono::seconds>(std::chrono::microseconds(now));
  const auto day =
      date ? *date : dayOf(nowSeconds.count() + zone.value_or(localOffsetAt(nowSeconds.count())));
  const auto local = std::chrono::sys_seconds(day).time_since_epoch().count() + time->seconds;
  return (local - zone.value_or(offsetOfLocal(local))) * kMicroseconds + time->microseconds;
}

// Takes 1h30m as microseconds. Absent if the text is no distance; the largest number if it does not
// fit 64 bits.
std::optional<std::int64_t> takeDistance(Reader& reader) {
  // "ms" stands before "m", which it begins with. The rank orders the units.
  struct Unit {
    std::string_view name;
    std::int64_t microseconds;
  };
  static constexpr std::array<Unit, 6> kUnits = {{{"ms", 1'000},
                                                  {"s", kMicroseconds},
                                                  {"m", 60 * kMicroseconds},
                                                  {"h", 3600 * kMicroseconds},
                                                  {"d", kDay * kMicroseconds},
                                                  {"w", 7 * kDay * kMicroseconds}}};
  std::int64_t total = 0;
  std::int64_t previous = INT64_MAX;
  do {
    const auto number = reader.number();
    const auto* const unit =
        std::ranges::find_if(kUnits, [&](const Unit& one) { return reader.take(one.name); });
    if (!number || unit == kUnits.end() || unit->microseconds >= previous) return std::nullopt;
    previous = unit->microseconds;
    std::int64_t part = 0;
    if (__builtin_mul_overflow(*number, unit->microseconds, &part) ||
        __builtin_add_overflow(total, part, &total)) {
      total = INT64_MAX;
    }
  } while (!reader.isAtEnd());
  return total;
}

std::optional<std::int64_t> relativeTime(const std::string& text, const TimeReference& reference) {
  Reader reader(text);
  std::int64_t from = reference.now;
  if (reader.take("end")) {
    from = reference.end;
  } else if (!reader.take("now") && !text.starts_with('-')) {
    return std::nullopt;
  }
  if (reader.isAtEnd()) return from;
  if (!reader.take("-")) return std::nullopt;
  const auto distance = takeDistance(reader);
  if (!distance) return std::nullopt;
  std::int64_t time = 0;
  if (*distance == INT64_MAX || __builtin_sub_overflow(from, *distance, &time)) {
    fail("'{}' is too long ago", text);
  }
  return time;
}

}  // namespace

std::int64_t parseTime(const std::string& text, const TimeReference& reference) {
  if (const auto time = relativeTime(text, reference)) return *time;
  if (const auto time = calendarTime(text, reference.now)) return *time;
  failAsNoTime(text);
}

}  // namespace host
