// SPDX-License-Identifier: MIT
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <thread>

#include "runeflow/query/query_parser.h"
#include "runeflow/store/event_store.h"
#include "runeflow/store/page_search_p.h"
#include "runeflow/store/sqlite_p.h"
#include "support.h"

namespace runeflow {
namespace {

using test::row;
using test::sql;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;
using testing::SizeIs;
using Seqs = std::vector<std::int64_t>;

LogQuery parse(std::string_view text, bool matchCase = false) {
  return QueryParser::parse(text, SourceDescriptor::logcat(), matchCase);
}

class StorePage : public testing::Test {
 protected:
  EventStore open() { return *EventStore::open(path_, true, SourceDescriptor::logcat()); }

  // 4,000 records: words, tags and levels of different frequencies, rare ones at the far ends.
  static std::vector<LogRow> mixedRows() {
    std::vector<LogRow> rows;
    for (int i = 1; i <= 4'000; ++i) {
      std::string message = fmt::format("{} number {}", i % 9 == 0 ? "Timeout" : "idle", i);
      if (i % 100 == 3) message += " retried.twice";
      if (i == 2 || i == 3'999) message += " rareword";
      const auto level = i == 5            ? RuneflowLogLevel::Fatal
                         : i % 1'000 == 17 ? RuneflowLogLevel::Error
                                           : RuneflowLogLevel::Info;
      std::optional<LogRow::Context> ctx;
      if (i % 50 == 0) ctx = LogRow::Context{{"k", i % 100 == 0 ? "even" : "odd"}};
      rows.push_back(row(message, i % 500 == 1 ? "Rare" : i % 2 ? "Odd" : "Even", level, ctx));
    }
    return rows;
  }

  test::TemporaryFolder folder_;
  std::string path_ = folder_.file("a.db");
};

// Every page must equal the same piece of the whole list.
void expectPagesOf(EventStore& store, const LogQuery& query) {
  const auto all = store.matchingSeqs(query, INT64_MIN);
  const auto newest = [&](std::int64_t below, std::size_t limit) {
    const auto end = below == INT64_MAX ? all.end() : std::ranges::lower_bound(all, below);
    const auto count = std::min(limit, static_cast<std::size_t>(end - all.begin()));
    return Seqs(end - static_cast<std::ptrdiff_t>(count), end);
  };
  const auto oldest = [&](std::int64_t after, std::size_t limit) {
    const auto begin = std::ranges::upper_bound(all, after);
    const auto count = std::min(limit, static_cast<std::size_t>(all.end() - begin));
    return Seqs(begin, begin + static_cast<std::ptrdiff_t>(count));
  };
  for (const std::int64_t anchor :
       {INT64_MIN, std::int64_t{-1}, std::int64_t{0}, std::int64_t{1}, std::int64_t{3},
        std::int64_t{700}, std::int64_t{3'999}, std::int64_t{4'001}, INT64_MAX - 1, INT64_MAX}) {
    for (const std::size_t limit : {1U, 7U, 50U, 5'000U}) {
      const auto asked = static_cast<std::int64_t>(limit);
      EXPECT_EQ(store.newestMatching(query, anchor, asked), newest(anchor, limit)) << anchor;
      EXPECT_EQ(store.oldestMatching(query, anchor, asked), oldest(anchor, limit)) << anchor;
    }
  }
  EXPECT_EQ(store.newestMatching(query, INT64_MAX, INT64_MAX), all);
  EXPECT_EQ(store.oldestMatching(query, INT64_MIN, INT64_MAX), all);
  for (const std::int64_t limit : {std::int64_t{0}, std::int64_t{-1}, INT64_MIN}) {
    EXPECT_THAT(store.newestMatching(query, INT64_MAX, limit), IsEmpty());
    EXPECT_THAT(store.oldestMatching(query, 0, limit), IsEmpty());
  }
}

// Of the letters and the folding of the index. The Kelvin sign folds to a "k".
TEST_F(StorePage, findsWordsInEveryCaseAndWithDiacritics) {
  auto store = open();
  const struct {
    std::string_view message;
    const char* found;  // by these words, separated by blanks
    const char* notFound;
  } table[] = {
      {"ZEBRA @Crossing[", "zebra ZEBRA zeb Crossing crossing", "ebra zebrac z"},
      {"Gr\u00fc\u00dfe", "gr\u00fc\u00dfe GR\u00dc gru\u00dfe", "grusse grue"},
      {"5 \u212aelvin", "kelvin KELVIN 5", "elvin"},
      {"na\u0131ve na\u00efve", "naive na\u00efve", "nave"},
      {"{`a|b~", "a b", "ab"},
  };
  std::int64_t seq = 0;
  for (const auto& [message, found, notFound] : table) {
    SCOPED_TRACE(message);
    store.insert(std::vector{row(message)});
    ++seq;
    const auto expectEach = [&](const char* words, bool isFound) {
      std::istringstream stream(words);
      for (std::string word; stream >> word;) {
        SCOPED_TRACE(word);
        const auto expected = isFound ? Seqs{seq} : Seqs{};
        EXPECT_EQ(store.newestMatching(parse(word), seq + 1, 1), expected);
        EXPECT_EQ(store.matchingSeqs(parse(word), seq - 1), expected);
      }
    };
    expectEach(found, true);
    expectEach(notFound, false);
  }
}

constexpr const char* kQueries[] = {"",
                                    "timeout",
                                    "time",
                                    "Ti",
                                    "rareword",
                                    "nothere",
                                    "retried.twice",
                                    "twice.retried",
                                    "--",
                                    "timeout rareword",
                                    "timeout OR rareword",
                                    "NOT timeout",
                                    "NOT idle",
                                    "level:error",
                                    "level:fatal",
                                    "level:error idle",
                                    "level:fatal number",
                                    "level:info timeout",
                                    "tag:Rare",
                                    "tag:Odd",
                                    "tag:Nobody",
                                    "tag:Odd retried",
                                    "tag:Rare idle NOT timeout",
                                    "tag:Rare tag:Odd",
                                    "(tag:Rare OR level:error) number",
                                    "NOT (tag:Odd OR timeout)",
                                    "ctx.k:even",
                                    "ctx.k:odd timeout",
                                    "NOT ctx.k:odd"};

TEST_F(StorePage, pagesArePiecesOfTheWholeList) {
  auto store = open();
  expectPagesOf(store, parse("timeout"));
  store.insert(mixedRows());
  for (const auto* text : kQueries) {
    SCOPED_TRACE(text);
    expectPagesOf(store, parse(text));
    EXPECT_EQ(store.takeError(), std::nullopt);
  }
  expectPagesOf(store, parse("Timeout", true));
  expectPagesOf(store, parse("timeout", true));
  for (const auto op :
       {FieldOp::equals, FieldOp::lessOrEqual, FieldOp::greaterOrEqual, FieldOp::notEquals}) {
    for (const auto level : {-3, 2, 4, 9}) {
      expectPagesOf(store, {QueryNode::field({StoreColumn::level(), op, Bind::int_(level)})});
    }
  }
  expectPagesOf(store, {QueryNode::fullText({"IMEOUT", FullTextMode::substringScan()})});
  expectPagesOf(store, {QueryNode::fullText({"x", FullTextMode::regex("x")})});
}

// A search that gives up judging records, at once or on the way, goes on with the index.
TEST_F(StorePage, pagesDoNotDependOnTheBudgetOfAScan) {
  auto store = open();
  store.insert(mixedRows());
  auto database = OpenDatabase::forReading(path_);
  for (const auto* text : kQueries) {
    SCOPED_TRACE(text);
    const auto query = parse(text);
    const auto all = store.matchingSeqs(query, 0);
    for (const int microseconds : {0, 30, 300}) {
      for (const std::int64_t limit : {1, 50, 5'000}) {
        const auto search = [&](SearchOrder order) {
          return searchPage(*database, query, order, 1, 4'000, limit,
                            std::chrono::microseconds(microseconds));
        };
        const auto count = std::min(std::ssize(all), limit);
        EXPECT_EQ(search(SearchOrder::oldestFirst), Seqs(all.begin(), all.begin() + count));
        EXPECT_EQ(search(SearchOrder::newestFirst), Seqs(all.rbegin(), all.rbegin() + count));
      }
    }
  }
}

TEST_F(StorePage, pagesSurviveStrangeRecords) {
  auto store = open();
  store.insert(mixedRows());
  // Levels outside 0 to 5, gaps, a missing message, and a record that the index does not know.
  sql(path_,
      "UPDATE events SET level = 9 WHERE seq = 3900; UPDATE events SET level = -1 WHERE seq = 40;"
      "DELETE FROM events WHERE seq BETWEEN 3000 AND 3500;"
      "INSERT INTO events(seq, ts, level, message) VALUES(9000, 0, 2, 'timeout'), (9001, 0, 4, "
      "NULL)");
  for (const auto* text : kQueries) {
    SCOPED_TRACE(text);
    expectPagesOf(store, parse(text));
  }
  EXPECT_THAT(store.newestMatching(parse("timeout"), INT64_MAX, 1), ElementsAre(3'996));
}

TEST_F(StorePage, pagesFollowATrimAndAReopenedFile) {
  auto writer = open();
  writer.insert(mixedRows());
  writer.close();
  auto reader = *EventStore::openForReading(path_, SourceDescriptor::logcat());
  expectPagesOf(reader, parse("timeout"));
  writer = open();
  ASSERT_EQ(writer.trimOldest(1, 1'000), 1'001);
  writer.insert(test::rows("timeout", 3));
  EXPECT_THAT(reader.newestMatching(parse("timeout"), INT64_MAX, 3),
              ElementsAre(4'001, 4'002, 4'003));
  writer.close();
  expectPagesOf(reader, parse("timeout"));
  EXPECT_THAT(reader.oldestMatching(parse("timeout"), 0, 2), ElementsAre(1'008, 1'017));
  EXPECT_EQ(reader.takeError(), std::nullopt);
}

TEST_F(StorePage, pagesShowOneMomentWhileAnotherConnectionWrites) {
  open().insert(test::rows("timeout", 200));
  std::atomic<bool> isEnding = false;
  std::thread writer([&] {
    auto store = open();
    while (!isEnding) {
      store.insert(test::rows("timeout", 100));
      store.trimOldest(1, 100);
    }
  });
  auto reader = open();
  for (int i = 0; i < 300; ++i) {
    const auto newest = reader.newestMatching(parse("timeout"), INT64_MAX, 60);
    ASSERT_THAT(newest, SizeIs(60));
    EXPECT_EQ(newest.back() - newest.front(), 59);
    const auto oldest = reader.oldestMatching(parse("timeout"), 0, 60);
    ASSERT_THAT(oldest, SizeIs(60));
    EXPECT_EQ(oldest.back() - oldest.front(), 59);
    EventStore::Snapshot snapshot(reader);
    EXPECT_EQ(reader.newestMatching(parse("timeout"), INT64_MAX, 1), Seqs{reader.maxSeq()});
  }
  isEnding = true;
  writer.join();
  EXPECT_EQ(reader.takeError(), std::nullopt);
}

TEST_F(StorePage, aRefusedQueryFailsInAllReads) {
  auto store = open();
  store.insert(test::rows("m", 3));
  auto deep = QueryNode::fullText({"m"});
  for (int i = 0; i < 60; ++i) deep = QueryNode::and_({QueryNode::all(), QueryNode::not_(deep)});
  const LogQuery query{deep};
  const auto expectRefusal = [&](bool isEmpty) {
    EXPECT_TRUE(isEmpty);
    const auto error = store.takeError();
    ASSERT_TRUE(error);
    EXPECT_EQ(error->fault, StoreFault::refused);
  };
  expectRefusal(store.matchingSeqs(query, 0).empty());
  expectRefusal(store.newestMatching(query, INT64_MAX, 2).empty());
  expectRefusal(store.oldestMatching(query, 0, 2).empty());
  expectRefusal(store.countMatchingPerBlock(query, 1, 9, 2).empty());
  expectRefusal(store.distinctValuesWithCounts(StoreColumn::level(), query, {}, 9).empty());
  expectRefusal(store.timeline(query, {0, INT64_MAX}, 1).bars[0] == Timeline::Bar{});
  const LogQuery noColumn{QueryNode::field({StoreColumn::slot(9), FieldOp::equals})};
  expectRefusal(store.newestMatching(noColumn, INT64_MAX, 2).empty());
}

TEST_F(StorePage, matchesAreCountedByBlocks) {
  auto store = open();
  store.insert(mixedRows());
  for (const auto* text : kQueries) {
    for (const std::int64_t size :
         {std::int64_t{1}, std::int64_t{7}, std::int64_t{1'000}, INT64_MAX}) {
      for (const auto& [first, last] :
           {std::pair{INT64_MIN, INT64_MAX}, std::pair<std::int64_t, std::int64_t>{500, 2'001},
            std::pair<std::int64_t, std::int64_t>{9, 3}}) {
        std::vector<SeqBlock> expected;
        for (const auto seq : store.matchingSeqs(parse(text), 0)) {
          if (seq < first || seq > last) continue;
          const auto block = (seq - 1) / size * size + 1;
          if (expected.empty() || expected.back().first != block) expected.push_back({block, 0});
          ++expected.back().count;
        }
        EXPECT_EQ(store.countMatchingPerBlock(parse(text), first, last, size), expected) << text;
      }
    }
  }
  sql(path_, "DELETE FROM events WHERE seq BETWEEN 11 AND 20 OR seq = 5");
  EXPECT_THAT(store.countMatchingPerBlock({}, 1, 30, 10),
              ElementsAre(SeqBlock{1, 9}, SeqBlock{21, 10}));
  EXPECT_THAT(store.countMatchingPerBlock({}, 1, 30, 0), IsEmpty());
}

TEST_F(StorePage, previewsCutMessages) {
  auto store = open();
  const std::string longMessage = std::string(1'000'000, 'x') + "日本end";
  store.insert(std::vector{
      row("é日x👩🏽‍🚀", "t", RuneflowLogLevel::Error, LogRow::Context{{"k", "v"}}),
      row(""), row(longMessage)});
  sql(path_, "INSERT INTO events(ts, level, message) VALUES(0, 7, NULL)");
  const auto texts = [](const std::vector<RecordPreview>& previews) {
    std::vector<std::string> list;
    for (const auto& preview : previews) {
      list.push_back(
          fmt::format("{} {} {}", preview.seq, preview.row.message(), preview.messageCharacters));
    }
    return list;
  };
  EXPECT_THAT(texts(store.fetchPreviewRange(1, 9, 3)),
              ElementsAre("1 é日x 7", "2  0", "3 xxx 1000005", "4  0"));
  EXPECT_THAT(texts(store.fetchPreviews(Seqs{3, 1, 3, 77}, 1)),
              ElementsAre("1 é 7", "3 x 1000005"));
  for (const std::int64_t none : {std::int64_t{0}, std::int64_t{-5}, INT64_MIN}) {
    EXPECT_THAT(texts(store.fetchPreviewRange(1, 1, none)), ElementsAre("1  7"));
  }
  EXPECT_THAT(store.fetchPreviews({}, 5), IsEmpty());
  const auto whole = store.fetchPreviewRange(INT64_MIN, INT64_MAX, INT64_MAX);
  const auto records = store.fetchRange(INT64_MIN, INT64_MAX);
  ASSERT_THAT(whole, SizeIs(records.size()));
  for (std::size_t i = 0; i < whole.size(); ++i) EXPECT_EQ(whole[i].row, records[i].row);
}

TEST_F(StorePage, aMessageIsReadInPieces) {
  auto store = open();
  store.insert(std::vector{row("aé日👩"), row("")});
  const struct {
    std::int64_t seq, from, characters;
    std::optional<std::string> expected;
  } rows[] = {{1, 0, 2, "aé"},
              {1, 2, 9, "日👩"},
              {1, 4, 1, ""},
              {1, -7, 1, "a"},
              {1, 1, -1, ""},
              {1, INT64_MAX, 1, ""},
              {1, 0, INT64_MAX, "aé日👩"},
              {1, INT64_MIN, INT64_MIN, ""},
              {2, 0, 5, ""},
              {3, 0, 5, std::nullopt},
              {-1, 0, 5, std::nullopt}};
  for (const auto& [seq, from, characters, expected] : rows) {
    EXPECT_EQ(store.messagePiece(seq, from, characters), expected) << from << ' ' << characters;
  }
}

TEST_F(StorePage, valuesAreCountedUnderAQuery) {
  auto store = open();
  store.insert(mixedRows());
  sql(path_, "UPDATE events SET level = 77 WHERE seq = 1");
  for (const auto* text : kQueries) {
    SCOPED_TRACE(text);
    const auto query = parse(text);
    for (const auto& prefix : {std::optional<std::string>(), std::optional<std::string>("o")}) {
      std::vector<ValueCount> expected;
      for (const auto& tag : store.distinctValues(StoreColumn::slot(0), query, prefix, -1)) {
        const auto isTag =
            QueryNode::field({StoreColumn::slot(0), FieldOp::equals, Bind::text(tag)});
        expected.push_back({tag, store.countMatching({QueryNode::and_({query.root, isTag})})});
      }
      EXPECT_EQ(store.distinctValuesWithCounts(StoreColumn::slot(0), query, prefix, -1), expected);
    }
    std::int64_t sum = 0;
    for (const auto& [level, count] :
         store.distinctValuesWithCounts(StoreColumn::level(), query, std::nullopt, -1)) {
      sum += count;
    }
    EXPECT_EQ(sum, store.countMatching(query));
  }
  const auto levels = [&](const std::optional<std::string>& prefix, std::int64_t limit) {
    return store.distinctValuesWithCounts(StoreColumn::level(), std::nullopt, prefix, limit);
  };
  EXPECT_THAT(levels({}, -1),
              ElementsAre(ValueCount{"2", 3'995}, ValueCount{"4", 4}, ValueCount{"5", 1}));
  EXPECT_THAT(levels("4", INT64_MAX), ElementsAre(ValueCount{"4", 4}));
  EXPECT_THAT(levels("", 1), ElementsAre(ValueCount{"2", 3'995}));
  EXPECT_THAT(levels({}, 0), IsEmpty());
  EXPECT_THAT(store.distinctValuesWithCounts(StoreColumn::message(), LogQuery{}, {}, 9), IsEmpty());
}

TEST_F(StorePage, anotherThreadCancelsAReadThatWouldNotEnd) {
  auto store = open();
  store.insert(test::rows("m", 3'000));
  // Each of the 50 patterns matches the text up to its last character from everywhere.
  sql(path_, "UPDATE events SET message = hex(zeroblob(5000))");
  const LogQuery slow{QueryNode::or_(std::vector(
      50, QueryNode::field({StoreColumn::message(), FieldOp::contains, Bind::text("00000001")})))};
  const auto isCancelled = std::make_shared<std::atomic<bool>>(true);
  store.setCancellation(isCancelled);
  EXPECT_THAT(store.newestMatching({}, INT64_MAX, 9), IsEmpty());
  EXPECT_EQ(store.count(), 0);
  ASSERT_THAT(store.takeError(),
              Optional(testing::Field(&StoreError::fault, StoreFault::cancelled)));
  store.insert(test::rows("written all the same", 2));
  EXPECT_EQ(store.insertedRows(), 3'002);

  *isCancelled = false;
  EXPECT_EQ(store.count(), 3'002);
  EXPECT_EQ(store.takeError(), std::nullopt);
  std::thread other([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    *isCancelled = true;
  });
  EXPECT_EQ(store.countMatching(slow), 0);
  other.join();
  EXPECT_THAT(store.takeError(),
              Optional(testing::Field(&StoreError::fault, StoreFault::cancelled)));
  store.setCancellation(nullptr);
  EXPECT_EQ(store.count(), 3'002);
}

TEST_F(StorePage, anInterruptedConnectionDoesNotWaitForALock) {
  auto waiting = Connection::open(path_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
  ASSERT_TRUE(waiting.execute("CREATE TABLE t(x)"));
  const Connection::LockWait anHour = 3'600'000;
  waiting.waitForLocks(anHour);
  std::atomic<bool> isInterrupted = false;
  waiting.interruptIf(
      [](const void* flag) { return static_cast<const std::atomic<bool>*>(flag)->load(); },
      &isInterrupted);
  const test::OtherConnection holder(path_, "BEGIN EXCLUSIVE");
  std::thread other([&] { isInterrupted = true; });
  EXPECT_FALSE(waiting.execute("SELECT * FROM t"));
  EXPECT_EQ(waiting.errorCode(), SQLITE_BUSY);
  other.join();
}

TEST(StoreWithoutDatabase, readsOfAPageFindNothing) {
  auto store = EventStore::inert(SourceDescriptor::logcat());
  store.setCancellation(std::make_shared<std::atomic<bool>>(true));
  EXPECT_THAT(store.newestMatching({}, INT64_MAX, 9), IsEmpty());
  EXPECT_THAT(store.oldestMatching({}, 0, 9), IsEmpty());
  EXPECT_THAT(store.countMatchingPerBlock({}, 1, 9, 1), IsEmpty());
  EXPECT_THAT(store.fetchPreviewRange(1, 9, 1), IsEmpty());
  EXPECT_EQ(store.messagePiece(1, 0, 1), std::nullopt);
  EXPECT_THAT(store.timeline({}, {0, 9}, 3).bars, SizeIs(3));
  EXPECT_EQ(store.timeSpan(1, 9), std::nullopt);
  EXPECT_EQ(store.firstSeqAtOrAfter(0), 0);
  EXPECT_EQ(store.takeError(), std::nullopt);
}

}  // namespace
}  // namespace runeflow
