// SPDX-License-Identifier: MIT

// Timelines that are asked for again and again while a capture runs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "database.h"
#include "runeflow/query/log_query.h"
#include "runeflow/store/event_store.h"

namespace viewer {

// Returns the span that holds `span` and is divided into at most `most` bars of 2^n microseconds,
// which begin at multiples of their length. The bars of a growing span keep their place, or join in
// pairs.
struct Axis {
  runeflow::TimeSpan span;
  std::size_t bars;
  bool operator==(const Axis&) const = default;
};
Axis axisOf(runeflow::TimeSpan span, std::size_t most);

// Keeps the latest timelines and counts only the records that are new. All functions may be called
// from any thread.
class TimelineCache {
 public:
  using Bars = std::vector<runeflow::Timeline::Bar>;

  // Counts the records of `query`, which is what `name` stands for. Records that a size cap has
  // deleted are counted until a fiftieth of all records is gone. `requireComplete` is called after
  // the reads and throws if one has failed.
  Bars count(runeflow::EventStore& store, const DatabaseState& state, const std::string& name,
             const runeflow::LogQuery& query, const Axis& axis,
             const std::function<void()>& requireComplete);

 private:
  struct Entry {
    std::string name;
    std::int64_t generation;
    std::int64_t firstSeq;  // of the records that were there when all were counted
    std::int64_t lastSeq;   // of the records that are counted
    Axis axis;
    Bars bars;
    bool isWhole;  // no record that is counted lies outside the axis
  };
  static constexpr std::size_t kMostEntries = 32;

  std::optional<Entry> find(const std::string& name);
  void keep(Entry entry);

  std::mutex mutex_;
  std::list<Entry> entries_;  // the latest first
};

}  // namespace viewer
