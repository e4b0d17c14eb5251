// One log record, and its severity.
//
// Every decoder turns bytes into LogRow values, the store keeps them as rows of its `events` table
// and gives them back, the viewer shows them. A row has the same shape for every kind of source;
// what the slots s0 to s7 mean is said by the source's SourceDescriptor.
#pragma once

#include <array>
#include <chrono>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>

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
class LogRow {
 public:
  static constexpr std::size_t slotCount = 8;
  using Context = std::map<std::string, std::string>;
  using Slot = std::optional<std::string>;
  using Slots = std::array<Slot, slotCount>;

  LogRow(Timestamp timestamp, RuneflowLogLevel level, std::string message,
         std::optional<Context> ctx, Slot s0, Slot s1, Slot s2, Slot s3, Slot s4, Slot s5, Slot s6,
         Slot s7);

  // The same with the slots in one array.
  LogRow(Timestamp timestamp, RuneflowLogLevel level, std::string message,
         std::optional<Context> ctx, Slots slots)
      : timestamp_(timestamp),
        level_(level),
        message_(std::move(message)),
        ctx_(std::move(ctx)),
        slots_(std::move(slots)) {}

  // The same with the slots written where they stay: `fill` is called once, with all slots absent.
  template <std::invocable<Slots&> Fill>
  LogRow(Timestamp timestamp, RuneflowLogLevel level, std::string message,
         std::optional<Context> ctx, Fill&& fill)
      : timestamp_(timestamp), level_(level), message_(std::move(message)), ctx_(std::move(ctx)) {
    std::forward<Fill>(fill)(slots_);
  }

  Timestamp timestamp() const { return timestamp_; }
  RuneflowLogLevel level() const { return level_; }
  const std::string& message() const { return message_; }
  const std::optional<Context>& ctx() const { return ctx_; }
  const Slot& s0() const { return slots_[0]; }
  const Slot& s1() const { return slots_[1]; }
  const Slot& s2() const { return slots_[2]; }
  const Slot& s3() const { return slots_[3]; }
  const Slot& s4() const { return slots_[4]; }
  const Slot& s5() const { return slots_[5]; }
  const Slot& s6() const { return slots_[6]; }
  const Slot& s7() const { return slots_[7]; }
  const Slots& slots() const { return slots_; }

  // The text of slot `index`; null when the slot is absent or there is no such slot. The pointer
  // lives as long as this row is neither moved nor destroyed.
  const std::string* slot(std::int64_t index) const;

  bool operator==(const LogRow&) const = default;

 private:
  Timestamp timestamp_;
  RuneflowLogLevel level_;
  std::string message_;
  std::optional<Context> ctx_;
  Slots slots_;
};

}  // namespace runeflow

template <>
struct std::hash<runeflow::LogRow> {
  std::size_t operator()(const runeflow::LogRow& row) const noexcept;
};
