// SPDX-License-Identifier: MIT

// The number of records of each level.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <utility>

#include "runeflow/store/event_store.h"

namespace cli {

using LevelCounts = std::array<std::pair<runeflow::RuneflowLogLevel, std::int64_t>, 6>;

// Returns the counts of the records that match, from Trace to Fatal, in one read.
inline LevelCounts countLevels(runeflow::EventStore& store,
                               const std::optional<runeflow::LogQuery>& matching) {
  LevelCounts counts{};
  for (std::size_t raw = 0; raw < counts.size(); ++raw) {
    counts[raw].first = static_cast<runeflow::RuneflowLogLevel>(raw);
  }
  const auto levels =
      store.distinctValuesWithCounts(runeflow::StoreColumn::level(), matching, std::nullopt, -1);
  for (const auto& [value, count] : levels) {
    const auto raw = static_cast<std::size_t>(value.front() - '0');  // "0" to "5"
    if (raw < counts.size()) counts[raw].second += count;
  }
  return counts;
}

}  // namespace cli
