// SPDX-License-Identifier: MIT
#include <fmt/format.h>

#include <algorithm>
#include <limits>

#include "runeflow/store/event_store.h"
#include "runeflow/store/open_database_p.h"
#include "runeflow/store/query_statement_p.h"
#include "runeflow/store/row_reader_p.h"

namespace runeflow {
namespace {

constexpr std::size_t kMostBars = 100'000;

// Products of a number of bars and a number of microseconds exceed 64 bits.
__extension__ using Wide = unsigned __int128;

// The difference of two times may need all 64 bits.
std::uint64_t distance(std::int64_t from, std::int64_t to) {
  return static_cast<std::uint64_t>(to) - static_cast<std::uint64_t>(from);
}

// Counts records into the bars of a timeline. Records mostly follow one another in time, so the
// bounds of the last bar are kept.
class BarCounter {
 public:
  explicit BarCounter(Timeline& timeline) : timeline_(timeline) {}

  void add(std::int64_t microseconds, std::int64_t level) {
    if (microseconds < begin_ || microseconds >= end_) {
      const auto& [from, until] = timeline_.span;
      if (microseconds < from || microseconds >= until) return;
      findBar(microseconds);
    }
    ++timeline_.bars[bar_][static_cast<std::size_t>(levelOfStored(level))];
  }

 private:
  // Finds the last bar that begins at or before a time: the largest i with
  // i * length / bars < offset + 1, where the division is exact.
  void findBar(std::int64_t microseconds) {
    const auto& [from, until] = timeline_.span;
    const Wide afterOffset = Wide{distance(from, microseconds)} + 1;
    bar_ =
        static_cast<std::size_t>((afterOffset * timeline_.bars.size() - 1) / distance(from, until));
    begin_ = timeline_.boundary(bar_);
    end_ = timeline_.boundary(bar_ + 1);
  }

  Timeline& timeline_;
  std::size_t bar_ = 0;
  std::int64_t begin_ = 0;  // the bar holds [begin_, end_)
  std::int64_t end_ = 0;
};

// Returns whether a query is one condition on the level that a quarter of the records satisfy or
// more. Reading them through the index then takes longer than reading all records.
bool isFrequentLevel(OpenDatabase& db, const QueryNode& root) {
  const auto* field = std::get_if<FieldPredicate>(&root.value());
  if (!field || field->column != StoreColumn::level()) return false;
  const auto compiled = LogQuery{root}.compile();
  const auto quarter =
      db.scalar("SELECT ((SELECT max(seq) FROM events) - (SELECT min(seq) FROM events)) / 4");
  Statement statement = db.prepare(
      fmt::format("SELECT count(*) FROM (SELECT 1 FROM events INDEXED BY i_level WHERE {} LIMIT ?)",
                  compiled.clause));
  if (!statement) return false;
  statement.bind(bindAll(statement, 1, compiled.binds), quarter);
  return statement.stepsToRow() && statement.integer(0) == quarter;
}

}  // namespace

std::int64_t Timeline::boundary(std::size_t i) const {
  if (bars.empty() || span.until <= span.from) return span.from;
  const auto offset = Wide{distance(span.from, span.until)} * i / bars.size();
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(span.from) +
                                   static_cast<std::uint64_t>(offset));
}

Timeline EventStore::timeline(const LogQuery& query, TimeSpan span, std::size_t bars) {
  const auto rewritten = rewrittenForCapabilities(query);
  const auto compiled = rewritten.compile();
  const auto empty = [&] {
    Timeline timeline{span, {}};
    timeline.bars.resize(std::clamp<std::size_t>(bars, 1, kMostBars));
    return timeline;
  };
  if (!database_ || span.until <= span.from) return empty();
  return reading(database_.get(), [&](OpenDatabase& db) {
    auto timeline = empty();
    if (isRefused(db, compiled)) return timeline;
    // The span is compared by the counter: as a condition it costs a fifth more.
    Statement statement = db.prepare(
        fmt::format("SELECT ts, level FROM events{} WHERE {}",
                    isFrequentLevel(db, rewritten.root) ? " NOT INDEXED" : "", compiled.clause));
    if (statement) bindAll(statement, 1, compiled.binds);
    BarCounter counter(timeline);
    db.forEachRow(statement, [&] { counter.add(statement.integer(0), statement.integer(1)); });
    return timeline;
  });
}

std::optional<TimeSpan> EventStore::timeSpan(std::int64_t first, std::int64_t last) {
  return reading(database_.get(), [&](OpenDatabase& db) {
    std::optional<std::pair<std::int64_t, std::int64_t>> times;  // the earliest and the latest
    Statement statement = db.prepare("SELECT ts FROM events WHERE seq BETWEEN ? AND ?");
    if (statement) {
      statement.bind(1, first);
      statement.bind(2, last);
    }
    // SQL's min() and max() take a third more time.
    db.forEachRow(statement, [&] {
      const auto time = statement.integer(0);
      if (!times) times = {time, time};
      times = {std::min(times->first, time), std::max(times->second, time)};
    });
    if (!times) return std::optional<TimeSpan>();
    const bool isLastOfAll = times->second == std::numeric_limits<std::int64_t>::max();
    return std::optional(TimeSpan{times->first, isLastOfAll ? times->second : times->second + 1});
  });
}

std::int64_t EventStore::firstSeqAtOrAfter(std::int64_t microseconds) {
  return reading(database_.get(), [&](OpenDatabase& db) -> std::int64_t {
    const OneMoment moment(db);
    const auto ends = [&](const char* order) {
      return db.scalar(fmt::format("SELECT seq FROM events ORDER BY seq {} LIMIT 1", order));
    };
    Statement probe = db.prepare("SELECT seq, ts FROM events WHERE seq >= ? ORDER BY seq LIMIT 1");
    struct Found {
      std::int64_t seq = 0;
      bool isEarlier = true;  // than the time wanted
    };
    const auto firstFrom = [&](std::int64_t seq) {
      Found found;
      if (probe) {
        probe.reset();
        probe.bind(1, seq);
      }
      db.forEachRow(probe, [&] { found = {probe.integer(0), probe.integer(1) < microseconds}; });
      return found;
    };
    auto earlier = ends("ASC");  // a record before the time, once it is known not to be after it
    if (const auto oldest = firstFrom(earlier); !oldest.isEarlier) return oldest.seq;
    const auto newest = firstFrom(ends("DESC"));
    if (newest.isEarlier) return 0;
    // Between `earlier` and `end` lie the records not looked at. From `end` on, the next record is
    // `later`, which is not before the time.
    auto later = newest.seq;
    auto end = later;
    while (distance(earlier, end) > 1) {
      const auto middle = static_cast<std::int64_t>(static_cast<std::uint64_t>(earlier) +
                                                    distance(earlier, end) / 2);
      const auto found = firstFrom(middle);
      if (found.seq == 0) return 0;  // a read has failed
      if (found.isEarlier) {
        earlier = found.seq;
      } else {
        later = found.seq;
        end = middle;
      }
    }
    return later;
  });
}

}  // namespace runeflow
