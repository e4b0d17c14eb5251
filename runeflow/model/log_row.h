// One log record, and its severity.
//
// Every decoder turns bytes into LogRow values, the store keeps them as rows of its `events` table
// and gives them back, the viewer shows them. A row has the same shape for every kind of source;
// what the slots s0 to s7 mean is said by the source's SourceDescriptor.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "runeflow/model/short_text.h"

namespace runeflow {

// A point in time as a double count of seconds since 1970-01-01T00:00:00Z. Near the present its
// resolution is about 0.2 µs; wherever a timestamp leaves memory it is whole microseconds.
using Timestamp = std::chrono::sys_time<std::chrono::duration<double>>;

// Whole microseconds since 1970-01-01T00:00:00Z, halves rounded away from zero. Absent when the
// timestamp is not finite or lies about 292,000 years or more from 1970, where no such count
// exists.
std::optional<std::int64_t> microsecondsSinceEpoch(Timestamp timestamp);

// The inverse: drops nothing for instants up to the year 2106; from there on doubles miss some
// microseconds.
Timestamp timestampFromMicroseconds(std::int64_t microseconds);

// Severity. The raw value is what the store keeps and what level ranges compare.
enum class RuneflowLogLevel : std::uint8_t { Trace, Debug, Info, Warning, Error, Fatal };

// Absent for anything but 0 to 5.
std::optional<RuneflowLogLevel> levelFromRawValue(std::int64_t rawValue);

constexpr std::int64_t rawValue(RuneflowLogLevel level) {
  return static_cast<std::int64_t>(level);
}

// Immutable. A moved-from row may only be assigned to or destroyed. An absent slot and an empty
// slot are different values (SQL NULL and '').
//
// The texts stand in one buffer, mostly in the row itself, so that rows are cheap to make and to
// move: the getters give views, which no NUL ends, and which live as long as the row is neither
// moved nor destroyed.
class LogRow {
 public:
  static constexpr std::size_t slotCount = 8;
  using Context = std::map<std::string, std::string>;
  using Slot = std::optional<std::string_view>;
  using Slots = std::array<Slot, slotCount>;

  // Copies the texts.
  LogRow(Timestamp timestamp, RuneflowLogLevel level, std::string_view message,
         std::optional<Context> ctx, Slot s0, Slot s1, Slot s2, Slot s3, Slot s4, Slot s5, Slot s6,
         Slot s7);

  LogRow(Timestamp timestamp, RuneflowLogLevel level, std::string_view message,
         std::optional<Context> ctx, const Slots& slots);

  Timestamp timestamp() const { return timestamp_; }
  RuneflowLogLevel level() const { return level_; }
  std::string_view message() const { return texts_.view().substr(slotEnds_.back()); }
  const std::optional<Context>& ctx() const { return ctx_; }
  Slot s0() const { return slot(0); }
  Slot s1() const { return slot(1); }
  Slot s2() const { return slot(2); }
  Slot s3() const { return slot(3); }
  Slot s4() const { return slot(4); }
  Slot s5() const { return slot(5); }
  Slot s6() const { return slot(6); }
  Slot s7() const { return slot(7); }

  Slots slots() const;

  // The text of slot `index`; absent when the slot is absent or there is no such slot.
  Slot slot(std::int64_t index) const;

  bool operator==(const LogRow&) const = default;

 private:
  friend struct std::hash<LogRow>;

  Timestamp timestamp_;
  RuneflowLogLevel level_;
  std::uint8_t presentSlots_ = 0;                  // bit i: slot i is there
  std::array<std::size_t, slotCount> slotEnds_{};  // each slot begins where the one before it ends
  ShortText texts_;                                // s0 to s7, then the message
  std::optional<Context> ctx_;
};

}  // namespace runeflow

template <>
struct std::hash<runeflow::LogRow> {
  std::size_t operator()(const runeflow::LogRow& row) const noexcept;
};
