// SPDX-License-Identifier: MIT
/// \file
/// Counts of records over time, as EventStore::timeline() returns them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "runeflow/platform/api.h"

namespace runeflow {

/// A half-open span of time, in microseconds since 1970-01-01T00:00:00Z. It is empty if `until` is
/// not after `from`.
struct TimeSpan {
  std::int64_t from;   ///< The first microsecond.
  std::int64_t until;  ///< The microsecond after the last one.
  bool operator==(const TimeSpan&) const = default;
};

/// Counts of records by time and level. The span is divided into bars of equal length. If the
/// division leaves a remainder, some bars are a microsecond longer. If there are more bars than
/// microseconds, some bars are empty.
struct RUNEFLOW_EXPORT Timeline {
  /// The number of records by raw level, Trace (0) to Fatal (5). A stored level outside this range
  /// counts as Info, as it does in a LogRow.
  using Bar = std::array<std::int64_t, 6>;

  TimeSpan span{};        ///< The span that was asked for.
  std::vector<Bar> bars;  ///< Bar i counts the times in [boundary(i), boundary(i + 1)).

  /// Returns the time at which bar `i` begins: `from` + `i` * (`until` - `from`) / bars.size(),
  /// rounded down. `i` must be at most bars.size(); for bars.size() the result is `until`. Returns
  /// `from` if there are no bars or the span is empty.
  std::int64_t boundary(std::size_t i) const;

  bool operator==(const Timeline&) const = default;
};

}  // namespace runeflow
