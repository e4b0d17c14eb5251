// SPDX-License-Identifier: MIT
/// \file
/// One log record, and its severity.
///
/// Decoders turn bytes into LogRow values. The store keeps each LogRow as one row of its `events`
/// table and returns it from its reads. All kinds of sources share this one type. The other fields
/// of a source, besides time, level and message, are stored in slots: eight optional texts, s0 to
/// s7. The SourceDescriptor of the source gives their meaning. For logcat, for example, slot 0 is
/// the tag.
///
/// A raw row is the record of a line that its decoder could not read. Its level is Info, its
/// message is the whole line, its time is the time of decoding, and all its slots are absent.
#pragma once

#include <array>
#include <cassert>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <numeric>
#include <optional>
#include <string>
#include <string_view>

#include "runeflow/model/short_text.h"
#include "runeflow/platform/api.h"

namespace runeflow {

/// A point in time as a double count of seconds since 1970-01-01T00:00:00Z. Its resolution is about
/// 0.2 µs for present dates. Outside memory, for example in the store, timestamps are whole
/// microseconds.
using Timestamp = std::chrono::sys_time<std::chrono::duration<double>>;

/// The severity of a record, in ascending order. The raw value is the integer value of the
/// enumerator. The store keeps the raw value, and queries compare it.
enum class RuneflowLogLevel : std::uint8_t {
  Trace,    ///< Raw value 0.
  Debug,    ///< Raw value 1.
  Info,     ///< Raw value 2.
  Warning,  ///< Raw value 3.
  Error,    ///< Raw value 4.
  Fatal,    ///< Raw value 5.
};

/// One log record. A record can be assigned to, but its fields cannot be changed one by one. A
/// moved-from record may only be assigned to or destroyed.
///
/// The record owns its texts, in one buffer that is part of the object if the texts are short. This
/// makes records cheap to create and to move. The getters return views into the buffer. A view is
/// not NUL-terminated, and is valid until the record is moved, assigned to or destroyed.
class RUNEFLOW_EXPORT LogRow {
 public:
  /// The number of slots of every record.
  static constexpr std::size_t slotCount = 8;
  /// Additional names and values of a record that have no slot.
  using Context = std::map<std::string, std::string>;
  /// The text of a slot. An absent slot (SQL NULL) and an empty slot ('') are different values.
  using Slot = std::optional<std::string_view>;
  /// All slots; element `i` is slot `i`.
  using Slots = std::array<Slot, slotCount>;

  /// Texts laid out as a record keeps them, for decoders that make millions of records: the present
  /// slots in ascending order and then the message, without gaps between them.
  struct Texts {
    std::string_view all;  ///< The texts. A record copies them.
    /// Bit `i` is set if slot `i` is present.
    std::uint8_t presentSlots = 0;
    /// Element `i` is the position in `all` at which slot `i` ends. An absent slot ends where the
    /// one before it ends, and the message begins where slot 7 ends.
    std::array<std::size_t, slotCount> slotEnds{};
  };

  /// Creates a record that holds copies of the texts.
  LogRow(Timestamp timestamp, RuneflowLogLevel level, std::string_view message,
         std::optional<Context> ctx, Slot s0, Slot s1, Slot s2, Slot s3, Slot s4, Slot s5, Slot s6,
         Slot s7);

  /// Creates the same record from an array of slots.
  LogRow(Timestamp timestamp, RuneflowLogLevel level, std::string_view message,
         std::optional<Context> ctx, const Slots& slots);

  /// Creates a record without context whose first slots are present and whose other slots are
  /// absent.
  template <std::size_t N>
    requires(N <= slotCount)
  LogRow(Timestamp timestamp, RuneflowLogLevel level, std::string_view message,
         const std::array<std::string_view, N>& firstSlots)
      : timestamp_(timestamp),
        level_(level),
        presentSlots_(static_cast<std::uint8_t>((1U << N) - 1)),
        texts_(std::accumulate(firstSlots.begin(), firstSlots.end(), message.size(),
                               [](std::size_t sum, auto text) { return sum + text.size(); })) {
    char* out = texts_.data();
    std::size_t end = 0;
    for (std::size_t i = 0; i < slotCount; ++i) {
      if (i < N) end += firstSlots[i].copy(out + end, firstSlots[i].size());
      slotEnds_[i] = end;
    }
    message.copy(out + end, message.size());
  }

  /// Creates a record without context by one copy of texts that are laid out already.
  LogRow(Timestamp timestamp, RuneflowLogLevel level, const Texts& texts)
      : timestamp_(timestamp),
        level_(level),
        presentSlots_(texts.presentSlots),
        slotEnds_(texts.slotEnds),
        texts_(texts.all.size()) {
    assert(slotEnds_.back() <= texts.all.size());
    texts.all.copy(texts_.data(), texts.all.size());
  }

  /// Returns the time of the record, or the time of decoding if the source gave none.
  Timestamp timestamp() const { return timestamp_; }
  /// Returns the severity.
  RuneflowLogLevel level() const { return level_; }
  /// Returns the message text.
  std::string_view message() const { return texts_.view().substr(slotEnds_.back()); }
  /// Returns the additional names and values. Absent in records that have none.
  const std::optional<Context>& ctx() const { return ctx_; }

  /// \name Slots
  /// @{
  Slot s0() const { return slot(0); }  ///< The text of slot 0.
  Slot s1() const { return slot(1); }  ///< The text of slot 1.
  Slot s2() const { return slot(2); }  ///< The text of slot 2.
  Slot s3() const { return slot(3); }  ///< The text of slot 3.
  Slot s4() const { return slot(4); }  ///< The text of slot 4.
  Slot s5() const { return slot(5); }  ///< The text of slot 5.
  Slot s6() const { return slot(6); }  ///< The text of slot 6.
  Slot s7() const { return slot(7); }  ///< The text of slot 7.
  /// @}

  /// Returns all slots.
  Slots slots() const;

  /// Returns the text of slot `index`, or nothing if the slot is absent or `index` is not in the
  /// range 0 to 7.
  Slot slot(std::int64_t index) const;

  bool operator==(const LogRow&) const = default;

 private:
  friend struct std::hash<LogRow>;

  Timestamp timestamp_;
  RuneflowLogLevel level_;
  std::uint8_t presentSlots_ = 0;                  // bit i is set if slot i is present
  std::array<std::size_t, slotCount> slotEnds_{};  // slot i begins where slot i - 1 ends
  ShortText texts_;                                // s0 to s7, then the message
  std::optional<Context> ctx_;
};

/// Returns whole microseconds since 1970-01-01T00:00:00Z, rounded to the nearest number; halves are
/// rounded away from zero. Returns nothing if `timestamp` is not finite or if the result does not
/// fit 64 bits. The result fits for about 292,000 years before and after 1970.
RUNEFLOW_EXPORT std::optional<std::int64_t> microsecondsSinceEpoch(Timestamp timestamp);

/// Returns the instant `microseconds` after 1970-01-01T00:00:00Z. For instants from 1834 to 2105,
/// microsecondsSinceEpoch() converts the result back to the same number. Outside these years it can
/// return another number, because a double cannot represent every microsecond there.
RUNEFLOW_EXPORT Timestamp timestampFromMicroseconds(std::int64_t microseconds);

/// Returns the level with the raw value `rawValue`, or nothing if it is not in the range 0 to 5.
RUNEFLOW_EXPORT std::optional<RuneflowLogLevel> levelFromRawValue(std::int64_t rawValue);

/// Returns the raw value of `level`, 0 to 5.
constexpr std::int64_t rawValue(RuneflowLogLevel level) {
  return static_cast<std::int64_t>(level);
}

}  // namespace runeflow

/// Hashes all fields of a LogRow.
template <>
struct RUNEFLOW_EXPORT std::hash<runeflow::LogRow> {
  /// Returns the hash of `row`.
  std::size_t operator()(const runeflow::LogRow& row) const noexcept;
};
