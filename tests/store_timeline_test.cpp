// SPDX-License-Identifier: MIT
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <numeric>
#include <random>

#include "runeflow/query/query_parser.h"
#include "runeflow/store/event_store.h"
#include "support.h"

namespace runeflow {
namespace {

using test::sql;
using testing::Each;
using testing::SizeIs;

class StoreTimeline : public testing::Test {
 protected:
  EventStore open() { return *EventStore::open(path_, true, SourceDescriptor::logcat()); }

  // Stores a record for each time in microseconds, with the levels -1 to 6 in turn.
  void store(const std::vector<std::int64_t>& times) {
    std::string values;
    for (std::size_t i = 0; i < times.size(); ++i) {
      values += fmt::format("{}({},{},'{}')", i ? "," : "", times[i],
                            static_cast<std::int64_t>(i % 8) - 1, i % 3 ? "a" : "b");
    }
    sql(path_, "INSERT INTO events(ts, level, message) VALUES" + values);
    sql(path_, "INSERT INTO events_fts(events_fts) VALUES('rebuild')");
  }

  // A plain loop over the records, with the definition of boundary() in wide numbers.
  static Timeline expected(EventStore& store, const LogQuery& query, TimeSpan span,
                           std::size_t bars, const std::vector<std::int64_t>& times) {
    Timeline timeline{span, std::vector<Timeline::Bar>(bars)};
    for (const auto seq : store.matchingSeqs(query, 0)) {
      const auto time = times[static_cast<std::size_t>(seq) - 1];
      if (time < span.from || time >= span.until) continue;
      std::size_t bar = 0;
      while (bar + 1 < bars && timeline.boundary(bar + 1) <= time) ++bar;
      auto level = (seq - 1) % 8 - 1;
      if (level < 0 || level > 5) level = 2;
      ++timeline.bars[bar][static_cast<std::size_t>(level)];
    }
    return timeline;
  }

  test::TemporaryFolder folder_;
  std::string path_ = folder_.file("a.db");
};

TEST(Timeline, boundariesDivideTheSpan) {
  const auto of = [](std::int64_t from, std::int64_t until, std::size_t bars) {
    Timeline timeline{{from, until}, std::vector<Timeline::Bar>(bars)};
    std::vector<std::int64_t> boundaries;
    for (std::size_t i = 0; i <= bars; ++i) boundaries.push_back(timeline.boundary(i));
    return boundaries;
  };
  using testing::ElementsAre;
  EXPECT_THAT(of(0, 10, 4), ElementsAre(0, 2, 5, 7, 10));
  EXPECT_THAT(of(-5, -3, 4), ElementsAre(-5, -5, -4, -4, -3));
  EXPECT_THAT(of(INT64_MIN, INT64_MAX, 2), ElementsAre(INT64_MIN, -1, INT64_MAX));
  EXPECT_THAT(of(7, 7, 2), ElementsAre(7, 7, 7));
  EXPECT_THAT(of(7, 3, 0), ElementsAre(7));
}

TEST_F(StoreTimeline, countsEachRecordInTheBarOfItsTime) {
  auto store = open();
  std::mt19937_64 random(3);
  std::vector<std::int64_t> times;
  std::int64_t clock = 1'000'000;
  for (int i = 0; i < 2'000; ++i) {
    clock += static_cast<std::int64_t>(random() % 50);
    if (i % 300 == 299) clock -= 20'000;  // the clock is set back
    times.push_back(i % 40 == 0 ? clock - 5'000 : clock);
  }
  times.insert(times.end(), {INT64_MIN, -1, 0, INT64_MAX - 1, INT64_MAX});
  this->store(times);
  for (const TimeSpan span :
       {TimeSpan{1'000'000, clock}, TimeSpan{1'005'000, 1'005'001}, TimeSpan{1'003'000, 1'003'100},
        TimeSpan{INT64_MIN, INT64_MAX}, TimeSpan{-1, 1}, TimeSpan{5, 5}, TimeSpan{9, 3}}) {
    for (const std::size_t bars : {1U, 2U, 7U, 200U}) {
      for (const auto* text : {"", "b", "level:error", "nothing"}) {
        SCOPED_TRACE(fmt::format("{} to {}, {} bars, '{}'", span.from, span.until, bars, text));
        const auto query = QueryParser::parse(text, SourceDescriptor::logcat(), false);
        EXPECT_EQ(store.timeline(query, span, bars), expected(store, query, span, bars, times));
      }
    }
  }
  EXPECT_THAT(store.timeline({}, {0, 9}, 0).bars, SizeIs(1));
  EXPECT_THAT(store.timeline({}, {0, 9}, SIZE_MAX).bars, SizeIs(100'000));
}

// timeSpan() of all records remembers the bounds of their times.
TEST_F(StoreTimeline, countsTheSameWhenTheTimesAreKnown) {
  auto store = open();
  std::mt19937_64 random(11);
  std::vector<std::int64_t> times;
  std::int64_t clock = 1'000'000;
  for (int i = 0; i < 6'000; ++i) {
    clock += static_cast<std::int64_t>(random() % 50) - (i % 2'500 == 2'499 ? 30'000 : 0);
    times.push_back(i % 700 == 0 ? 5 : clock);
  }
  this->store(times);
  const TimeSpan whole{5, *std::ranges::max_element(times) + 1};
  EXPECT_EQ(store.timeSpan(0, INT64_MAX), whole);
  EXPECT_EQ(store.timeSpan(0, INT64_MAX), whole);
  for (const TimeSpan span : {TimeSpan{1'000'000, clock + 1}, TimeSpan{0, 1'070'000},
                              TimeSpan{1'060'000, 1'062'000}, TimeSpan{4, 6}}) {
    for (const std::size_t bars : {1U, 9U, 100U}) {
      for (const auto* text : {"", "level:error", "NOT level:error", "level:debug NOT level:fatal",
                               "level:info b", "NOT (level:trace OR tag:x)"}) {
        SCOPED_TRACE(fmt::format("{} to {}, {} bars, '{}'", span.from, span.until, bars, text));
        const auto query = QueryParser::parse(text, SourceDescriptor::logcat(), false);
        EXPECT_EQ(store.timeline(query, span, bars), expected(store, query, span, bars, times));
      }
    }
  }
}

// A connection that has not asked for the times reads them.
TEST_F(StoreTimeline, countsTheSameWhateverAnotherProgramHasStored) {
  auto knowing = open();
  std::vector<std::int64_t> times;
  for (std::int64_t i = 0; i < 3'000; ++i) times.push_back(i * 10 - i % 40);
  for (const auto* change : {
           "DELETE FROM events WHERE seq % 9 = 4 OR seq BETWEEN 1000 AND 1300",
           "UPDATE events SET level = seq % 20",
           "UPDATE events SET level = 'loud' WHERE seq = 7",
           "UPDATE events SET level = 4294967300 WHERE seq % 2",  // 2^32 + 4
           "UPDATE events SET seq = 1 << 40 WHERE seq = 3000",
           "UPDATE events SET seq = -(1 << 62) - seq WHERE seq > 2000",
       }) {
    SCOPED_TRACE(change);
    sql(path_, "DELETE FROM events");
    this->store(times);
    sql(path_, change);
    EXPECT_EQ(fmt::format("{}", knowing.timeSpan(INT64_MIN, INT64_MAX)->until - 1),
              sql(path_, "SELECT max(ts) FROM events").front());
    auto reading = *EventStore::openForReading(path_, SourceDescriptor::logcat());
    for (const auto* text : {"", "level:error", "NOT level:error", "b", "NOT b", "NOT tag:x"}) {
      SCOPED_TRACE(text);
      const auto query = QueryParser::parse(text, SourceDescriptor::logcat(), false);
      EXPECT_EQ(knowing.timeline(query, {90, 28'000}, 7), reading.timeline(query, {90, 28'000}, 7));
    }
    EXPECT_EQ(knowing.takeError(), std::nullopt);
  }
}

// A change keeps the number of records and the seqs, but not the times.
TEST_F(StoreTimeline, forgetsTheTimesWhenRecordsChange) {
  const auto timesFrom = [](std::int64_t start) {
    std::vector<std::int64_t> times;
    for (std::int64_t i = 0; i < 500; ++i) times.push_back(start + i);
    return times;
  };
  const auto row = [](std::int64_t time) {
    return LogRow(test::at(static_cast<double>(time) / 1e6), RuneflowLogLevel::Error, "x", {}, {});
  };
  auto own = open();
  this->store(timesFrom(0));
  auto other = *EventStore::openForReading(path_, SourceDescriptor::logcat());
  const std::pair<const char*, std::function<void()>> changes[] = {
      {"nothing", [] {}},
      {"another connection clears and fills",
       [&] {
         sql(path_, "DELETE FROM events");
         this->store(timesFrom(2'000));
       }},
      {"this connection clears and fills",
       [&] {
         own.clear();
         std::vector<LogRow> rows;
         for (const auto time : timesFrom(4'000)) rows.push_back(row(time));
         own.insert(rows);
       }},
      {"this connection adds", [&] { own.insert(std::vector{row(9'000)}); }},
  };
  for (const auto& [name, change] : changes) {
    SCOPED_TRACE(name);
    change();
    for (auto* store : {&own, &other}) {
      const auto span = *store->timeSpan(0, INT64_MAX);
      EXPECT_EQ(fmt::format("{}|{}", span.from, span.until - 1),
                sql(path_, "SELECT min(ts), max(ts) FROM events").front());
      std::int64_t found = 0;
      for (const auto& bar : store->timeline({}, {0, 2'100}, 3).bars) {
        found += std::accumulate(bar.begin(), bar.end(), std::int64_t{0});
      }
      EXPECT_EQ(fmt::format("{}", found),
                sql(path_, "SELECT count(*) FROM events WHERE ts < 2100").front());
    }
  }
}

TEST_F(StoreTimeline, equalsTheGroupsOfSql) {
  auto store = open();
  std::vector<std::int64_t> times;
  for (std::int64_t i = 0; i < 3'000; ++i) times.push_back(i * 7 % 1'000 * 10);
  this->store(times);
  std::vector<std::string> found;
  const auto timeline = store.timeline({}, {0, 10'000}, 20);
  for (std::size_t bar = 0; bar < 20; ++bar) {
    for (std::size_t level = 0; level < 6; ++level) {
      const auto count = timeline.bars[bar][level];
      if (count > 0) found.push_back(fmt::format("{}|{}|{}", bar, level, count));
    }
  }
  EXPECT_EQ(found, sql(path_,
                       "SELECT ts / 500, CASE WHEN level BETWEEN 0 AND 5 THEN level ELSE 2 END l, "
                       "count(*) FROM events GROUP BY 1, 2 ORDER BY 1, 2"));
}

TEST_F(StoreTimeline, theSpanIsThatOfTheTimes) {
  auto store = open();
  EXPECT_EQ(store.timeSpan(INT64_MIN, INT64_MAX), std::nullopt);
  this->store({50, 90, 10, 60, INT64_MAX, INT64_MIN});
  EXPECT_EQ(store.timeSpan(1, 4), (TimeSpan{10, 91}));
  EXPECT_EQ(store.timeSpan(4, 4), (TimeSpan{60, 61}));
  EXPECT_EQ(store.timeSpan(0, INT64_MAX), (TimeSpan{INT64_MIN, INT64_MAX}));
  EXPECT_EQ(store.timeSpan(4, 3), std::nullopt);
  EXPECT_EQ(store.timeSpan(7, 9), std::nullopt);
}

TEST_F(StoreTimeline, findsARecordWhosePredecessorIsEarlier) {
  auto store = open();
  EXPECT_EQ(store.firstSeqAtOrAfter(0), 0);
  std::mt19937_64 random(5);
  for (const bool jumps : {false, true}) {
    sql(path_, "DELETE FROM events");
    std::vector<std::int64_t> times;
    std::int64_t clock = 0;
    for (int i = 0; i < 300; ++i) {
      clock += static_cast<std::int64_t>(random() % 4) - (jumps && i % 50 == 49 ? 60 : 0);
      times.push_back(clock);
    }
    this->store(times);
    sql(path_, "DELETE FROM events WHERE seq BETWEEN 20 AND 90 OR seq % 7 = 3");
    const auto records = store.fetchRange(0, 999);
    for (auto time = records.front().row.timestamp(); time <= records.back().row.timestamp();
         time += std::chrono::microseconds(1)) {
      const auto wanted = *microsecondsSinceEpoch(time);
      const auto seq = store.firstSeqAtOrAfter(wanted);
      const auto found = std::ranges::find(records, seq, &FetchedRow::seq);
      ASSERT_NE(found, records.end()) << wanted;
      EXPECT_GE(times[static_cast<std::size_t>(seq) - 1], wanted);
      if (found == records.begin()) continue;
      EXPECT_LT(times[static_cast<std::size_t>((found - 1)->seq) - 1], wanted);
    }
    EXPECT_EQ(store.firstSeqAtOrAfter(INT64_MIN), records.front().seq);
    EXPECT_EQ(store.firstSeqAtOrAfter(times.back() + 1), 0);
  }
}

}  // namespace
}  // namespace runeflow
