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

// Finds the bars of times. Records mostly follow one another in time, so the bounds of the last bar
// are kept.
class BarFinder {
 public:
  explicit BarFinder(Timeline& timeline) : timeline_(timeline) {}

  // Returns the bar that counts the time; null outside the span.
  Timeline::Bar* barAt(std::int64_t microseconds) {
    if (microseconds < begin_ || microseconds >= end_) {
      const auto& [from, until] = timeline_.span;
      if (microseconds < from || microseconds >= until) return nullptr;
      findBar(microseconds);
    }
    return &timeline_.bars[bar_];
  }

  void count(std::int64_t microseconds, std::int64_t level) {
    if (auto* bar = barAt(microseconds)) ++(*bar)[static_cast<std::size_t>(levelOfStored(level))];
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

// Returns whether all conditions of a query are on the level.
bool hasOnlyLevels(const QueryNode& node) {
  const auto* field = std::get_if<FieldPredicate>(&node.value());
  if (field) return field->column == StoreColumn::level();
  if (std::holds_alternative<ContextPredicate>(node.value()) ||
      std::holds_alternative<FullTextTerm>(node.value())) {
    return false;
  }
  return std::ranges::all_of(node.children(), hasOnlyLevels);
}

// Returns the stored levels that satisfy a condition on the level alone. Absent if they are not
// known, see OpenDatabase::levelsFrom().
std::optional<std::vector<std::int64_t>> levelsThatMatch(OpenDatabase& db,
                                                         const LogQuery::Compiled& compiled) {
  auto levels = db.levelsFrom(std::numeric_limits<std::int64_t>::min());
  // The cast gives the column the affinity of events.level.
  Statement judge = db.prepare(
      fmt::format("SELECT {} FROM (SELECT CAST(? AS INTEGER) AS level)", compiled.clause));
  if (!levels || !judge) return std::nullopt;
  const auto parameter = bindAll(judge, 1, compiled.binds);
  bool isJudged = true;
  std::erase_if(*levels, [&](std::int64_t level) {
    judge.reset();
    judge.bind(parameter, level);
    isJudged = judge.stepsToRow() && isJudged;
    return isJudged && judge.integer(0) == 0;
  });
  return isJudged ? levels : std::nullopt;
}

// Counts records by what is known of them, and reads only the times of those whose block does not
// lie within one bar.
class CountByBlocks {
 public:
  CountByBlocks(OpenDatabase& db, Timeline& timeline)
      : db_(db), known_(db.timeBlocks), timeline_(timeline), finder_(timeline) {}

  // Returns false if it did not count all, because too little is known.
  bool count(const LogQuery::Compiled& compiled, bool hasOnlyLevels) {
    if (!known_.areCurrent(db_) || known_.levels().empty() || !findBars()) return false;
    time_ = db_.prepare("SELECT ts FROM events WHERE seq = ?");
    if (!time_) return false;
    return hasOnlyLevels ? countLevels(compiled) : countMatches(compiled);
  }

 private:
  // Fails if so many times would be read that the blocks save nothing, as with clocks that jump all
  // the time.
  bool findBars() {
    const auto& blocks = known_.blocks();
    std::size_t toBeRead = 0;
    bars_.reserve(blocks.size());
    for (const auto& [earliest, latest] : blocks) {
      auto* bar = &outside_;
      if (latest >= timeline_.span.from && earliest < timeline_.span.until) {
        bar = finder_.barAt(earliest);
        if (finder_.barAt(latest) != bar) bar = nullptr;
        if (!bar) ++toBeRead;
      }
      bars_.push_back(bar);
    }
    return toBeRead <= blocks.size() / 4;
  }

  bool countLevels(const LogQuery::Compiled& compiled) {
    const auto matching = levelsThatMatch(db_, compiled);
    if (!matching) return false;
    std::vector<bool> isMatching;
    for (const auto level : known_.levels()) {
      isMatching.push_back(std::ranges::find(*matching, level) != matching->end());
    }
    known_.forEach([&](std::int64_t seq, const TimeBlocks::Place& place) {
      if (isMatching[place.level]) countAt(seq, place);
    });
    return true;
  }

  bool countMatches(const LogQuery::Compiled& compiled) {
    Statement seqs = db_.prepare(fmt::format("SELECT seq FROM events WHERE {}", compiled.clause));
    if (seqs) bindAll(seqs, 1, compiled.binds);
    bool isKnown = true;
    db_.forEachRow(seqs, [&] {
      const auto seq = seqs.integer(0);
      const auto place = known_.placeOf(seq);
      if (place) countAt(seq, *place);
      isKnown = isKnown && place;
    });
    return isKnown;
  }

  void countAt(std::int64_t seq, const TimeBlocks::Place& place) {
    auto* bar = bars_[place.block];
    if (!bar) {
      time_.reset();
      time_.bind(1, seq);
      db_.forEachRow(time_, [&] { bar = finder_.barAt(time_.integer(0)); });
    }
    const auto level = levelOfStored(known_.levels()[place.level]);
    if (bar) ++(*bar)[static_cast<std::size_t>(level)];
  }

  OpenDatabase& db_;
  const TimeBlocks& known_;
  Timeline& timeline_;
  BarFinder finder_;
  Timeline::Bar outside_{};           // counts what the timeline does not hold
  std::vector<Timeline::Bar*> bars_;  // of each block; null: its times must be read
  Statement time_;
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

// Returns whether a range of seqs holds all records, and more than one.
bool isWhole(OpenDatabase& db, std::int64_t first, std::int64_t last) {
  const auto least = db.scalar("SELECT min(seq) FROM events");
  const auto greatest = db.scalar("SELECT max(seq) FROM events");
  return first <= least && greatest <= last && least < greatest;
}

// Calls add(earliest, latest) for times of all records, and keeps their blocks for timelines.
template <class Add>
void addAllTimes(OpenDatabase& db, Add add) {
  if (!db.timeBlocks.areCurrent(db)) {
    TimeBlocks::Builder builder(db);
    Statement statement = db.prepare("SELECT seq, ts, level FROM events ORDER BY seq");
    db.forEachRow(statement, [&] {
      builder.add(statement.integer(0), statement.integer(1), statement.integer(2));
    });
    db.timeBlocks = std::move(builder).finish();
  }
  for (const auto& [earliest, latest] : db.timeBlocks.blocks()) {
    if (earliest <= latest) add(earliest, latest);
  }
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
    const OneMoment moment(db);
    if (CountByBlocks(db, timeline).count(compiled, hasOnlyLevels(rewritten.root))) return timeline;
    timeline = empty();
    BarFinder finder(timeline);
    // The span is not a condition of the statement, where it would cost a fifth more.
    Statement statement = db.prepare(
        fmt::format("SELECT ts, level FROM events{} WHERE {}",
                    isFrequentLevel(db, rewritten.root) ? " NOT INDEXED" : "", compiled.clause));
    if (statement) bindAll(statement, 1, compiled.binds);
    db.forEachRow(statement, [&] { finder.count(statement.integer(0), statement.integer(1)); });
    return timeline;
  });
}

std::optional<TimeSpan> EventStore::timeSpan(std::int64_t first, std::int64_t last) {
  return reading(database_.get(), [&](OpenDatabase& db) {
    std::optional<std::pair<std::int64_t, std::int64_t>> times;  // the earliest and the latest
    const auto add = [&](std::int64_t earliest, std::int64_t latest) {
      if (!times) times = {earliest, latest};
      times = {std::min(times->first, earliest), std::max(times->second, latest)};
    };
    const OneMoment moment(db);
    if (isWhole(db, first, last)) {
      addAllTimes(db, add);
    } else {
      Statement statement = db.prepare("SELECT ts FROM events WHERE seq BETWEEN ? AND ?");
      if (statement) {
        statement.bind(1, first);
        statement.bind(2, last);
      }
      // SQL's min() and max() take a third more time.
      db.forEachRow(statement, [&] { add(statement.integer(0), statement.integer(0)); });
    }
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
