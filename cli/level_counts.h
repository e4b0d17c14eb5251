// SPDX-License-Identifier: MIT

// The number of records of each level.
#pragma once

#include <array>
#include <cstdint>
#include <utility>

#include "runeflow/store/event_store.h"

namespace cli {

using LevelCounts = std::array<std::pair<runeflow::RuneflowLogLevel, std::int64_t>, 6>;

// Counts the records at or above each level, which the index on the level answers, and subtracts
// the count of the level above.
inline LevelCounts countLevels(runeflow::EventStore& store, const runeflow::LogQuery& matching) {
  using namespace runeflow;
  LevelCounts counts{};
  std::int64_t above = 0;
  for (auto raw = static_cast<std::int64_t>(counts.size()) - 1; raw >= 0; --raw) {
    const auto atLeast =
        QueryNode::field({StoreColumn::level(), FieldOp::greaterOrEqual, Bind::int_(raw)});
    const auto total = store.countMatching({QueryNode::and_({matching.root, atLeast})});
    counts[static_cast<std::size_t>(raw)] = {static_cast<RuneflowLogLevel>(raw), total - above};
    above = total;
  }
  return counts;
}

}  // namespace cli
