// SPDX-License-Identifier: MIT
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <numeric>
#include <thread>

#include "runeflow/decoders/logcat_decoder.h"
#include "runeflow/query/query_parser.h"
#include "runeflow/store/event_store.h"
#include "support.h"

namespace runeflow {
namespace {

using test::row;
using test::sql;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;
using Predicate = std::function<bool(const LogRow&)>;

std::string lower(std::string_view text) {
  std::string lowered(text);
  for (char& c : lowered) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
  return lowered;
}

// Splits a text into words as the full-text index does for ASCII: runs of letters and digits, in
// lower case. Bytes outside ASCII count as letters.
std::vector<std::string> tokens(std::string_view text) {
  std::vector<std::string> words(1);
  for (const char c : lower(text)) {
    if (std::isalnum(static_cast<unsigned char>(c)) || c < 0) {
      words.back() += c;
    } else if (!words.back().empty()) {
      words.emplace_back();
    }
  }
  if (words.back().empty()) words.pop_back();
  return words;
}

// Matches messages that contain the words of `typed` as a phrase. The last word is a prefix if
// `typed` has at least 3 bytes.
Predicate word(const std::string& typed) {
  return [wanted = tokens(typed), isPrefix = typed.size() >= 3](const LogRow& r) {
    const auto same = [&](const std::string& token, const std::string& part) {
      return isPrefix && &part == &wanted.back() ? token.starts_with(part) : token == part;
    };
    const auto words = tokens(r.message());
    return !std::ranges::search(words, wanted, same).empty();
  };
}
Predicate exactly(const std::string& part) {
  return [part](const LogRow& r) { return r.message().find(part) != std::string::npos; };
}
Predicate slot(int index, const std::string& value) {
  return [=](const LogRow& r) { return r.slot(index) && *r.slot(index) == value; };
}
Predicate atLeast(RuneflowLogLevel level) {
  return [level](const LogRow& r) { return r.level() >= level; };
}
Predicate both(Predicate a, Predicate b) {
  return [=](const LogRow& r) { return a(r) && b(r); };
}
Predicate either(Predicate a, Predicate b) {
  return [=](const LogRow& r) { return a(r) || b(r); };
}
// In SQL, NOT of a comparison with NULL is NULL: a record without the slot does not match.
Predicate notSlot(int index, const std::string& value) {
  return [=](const LogRow& r) { return r.slot(index) && *r.slot(index) != value; };
}
Predicate negated(Predicate a) {
  return [=](const LogRow& r) { return !a(r); };
}

std::vector<std::int64_t> filter(std::span<const LogRow> rows, const Predicate& keeps) {
  std::vector<std::int64_t> seqs;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    if (keeps(rows[i])) seqs.push_back(static_cast<std::int64_t>(i) + 1);
  }
  return seqs;
}

class StoreRead : public testing::Test {
 protected:
  EventStore open() { return *EventStore::open(path_, true, SourceDescriptor::logcat()); }
  static LogQuery parse(std::string_view text, bool matchCase = false) {
    return QueryParser::parse(text, SourceDescriptor::logcat(), matchCase);
  }
  static std::vector<std::int64_t> seqsOf(const std::vector<FetchedRow>& records) {
    std::vector<std::int64_t> seqs;
    for (const auto& record : records) seqs.push_back(record.seq);
    return seqs;
  }
  static std::vector<LogRow> decode(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    return LogcatDecoder([] { return test::at(1'700'000'000); }).consume(test::bytes(text));
  }

  test::TemporaryFolder folder_;
  std::string path_ = folder_.file("a.db");
};

// Makes a connection behave as if SQLite were built without FTS5 and JSON.
int denyExtensions(sqlite3* db, char** /*error*/, const sqlite3_api_routines* /*api*/) {
  return sqlite3_set_authorizer(
      db,
      [](void*, int action, const char* /*table*/, const char* second, const char*, const char*) {
        const bool isFullText =
            action == SQLITE_CREATE_VTABLE && std::string_view(second) == "fts5";
        const bool isJson = action == SQLITE_FUNCTION && std::string_view(second) == "json_extract";
        return isFullText || isJson ? SQLITE_DENY : SQLITE_OK;
      },
      nullptr);
}

EventStore openWithoutExtensions(const std::string& path) {
  const auto extension = reinterpret_cast<void (*)()>(denyExtensions);
  sqlite3_auto_extension(extension);
  auto store = EventStore::open(path, true, SourceDescriptor::logcat());
  sqlite3_cancel_auto_extension(extension);
  EXPECT_FALSE(store->ftsAvailable() || store->jsonAvailable());
  return *std::move(store);
}

// Each query must find the records that a plain filter over `rows` finds. A store without the
// full-text index must find them, too, unless the query searches for words: there it finds
// substrings. At least 20 of the queries must find a record, or the comparison would prove little.
void expectAgreementWithAPlainFilter(std::span<const LogRow> rows,
                                     const test::TemporaryFolder& folder) {
  using enum RuneflowLogLevel;
  const struct {
    const char* text;
    Predicate expected;
    bool matchCase = false;
  } table[] = {
      {"wifi", word("wifi")},
      {"WiFi", word("wifi")},
      {"conn", word("conn")},
      {"to", word("to")},
      {"start proc", both(word("start"), word("proc"))},
      {"\"start proc\"", both(word("start"), word("proc"))},
      {"wifi scan OR disk", either(both(word("wifi"), word("scan")), word("disk"))},
      {"tag:WifiService", slot(0, "WifiService")},
      {"TAG:wifiservice", slot(0, "wifiservice")},
      {"pid:612 tid:612", both(slot(1, "612"), slot(2, "612"))},
      {"level:warn", atLeast(Warning)},
      {"level:FATAL", atLeast(Fatal)},
      {"level:error connect", both(atLeast(Error), word("connect"))},
      {"NOT tag:chatty", notSlot(0, "chatty")},
      {"connect NOT failed", both(word("connect"), negated(word("failed")))},
      {"NOT (level:warn OR wifi)", negated(either(atLeast(Warning), word("wifi")))},
      {"(tag:Zygote OR tag:SystemUI) level:info",
       both(either(slot(0, "Zygote"), slot(0, "SystemUI")), atLeast(Info))},
      {"Start", both(word("start"), exactly("Start")), true},
      {"start", both(word("start"), exactly("start")), true},
      {"log buffer", both(word("log"), word("buffer"))},
      {"lock release", both(word("lock"), word("release"))},
      {"flags=0x1 OR \"reason=3\"", either(word("flags=0x1"), word("reason=3"))},
      {"com.android.systemui", word("com.android.systemui")},
      {"\"View Lock\"",
       both(word("view"), both(word("lock"), both(exactly("View"), exactly("Lock")))), true},
      {"setSystemUiVisibility NOT vis=1",
       both(word("setsystemuivisibility"), negated(word("vis=1")))},
      {"tag:PowerManagerService pid:1702", both(slot(0, "PowerManagerService"), slot(1, "1702"))},
      {"pid:1702 OR tid:612", either(slot(1, "1702"), slot(2, "612"))},
      {"(pid:2227 OR pid:612) NOT level:info",
       both(either(slot(1, "2227"), slot(1, "612")), negated(atLeast(Info)))},
      {"false", word("false")},
      {"NOT level:info", negated(atLeast(Info))},
      {"android OR wifi", either(word("android"), word("wifi"))},
      {"lock NOT level:info", both(word("lock"), negated(atLeast(Info)))},
      {"ctx.k:v", [](const LogRow&) { return false; }},
      {"", [](const LogRow&) { return true; }},
  };
  auto store = *EventStore::open(folder.file("a.db"), true, SourceDescriptor::logcat());
  store.insert(rows);
  auto bare = openWithoutExtensions(folder.file("bare.db"));
  bare.insert(rows);
  int fruitful = 0;
  for (const auto& [text, expected, matchCase] : table) {
    SCOPED_TRACE(text);
    const auto query = QueryParser::parse(text, SourceDescriptor::logcat(), matchCase);
    const auto seqs = filter(rows, expected);
    fruitful += seqs.empty() ? 0 : 1;
    EXPECT_EQ(store.matchingSeqs(query, 0), seqs);
    EXPECT_EQ(store.countMatching(query), static_cast<std::int64_t>(seqs.size()));
    const auto after = std::ranges::upper_bound(seqs, 1'000);
    EXPECT_EQ(store.matchingSeqs(query, 1'000), std::vector(after, seqs.end()));
    if (!QueryParser::highlightTerms(query.root).empty()) continue;
    EXPECT_EQ(bare.matchingSeqs(query, 0), seqs);
    EXPECT_EQ(bare.countMatching(query), static_cast<std::int64_t>(seqs.size()));
  }
  EXPECT_GE(fruitful, 20);
}

TEST_F(StoreRead, queriesAgreeWithAPlainFilter) {
  const auto rows = decode(RUNEFLOW_SAMPLE_LOG);
  ASSERT_GT(rows.size(), 2'000U);
  expectAgreementWithAPlainFilter(rows, folder_);
}

TEST_F(StoreRead, queriesAgreeWithAPlainFilterOnTheUsersRecording) {
  const char* recording = std::getenv("RUNEFLOW_TEST_LOG");  // NOLINT(concurrency-mt-unsafe)
  if (!recording)
    GTEST_SKIP() << "set RUNEFLOW_TEST_LOG to the path of a logcat recording to run this test";
  expectAgreementWithAPlainFilter(decode(recording), folder_);
}

TEST_F(StoreRead, withoutFullTextAndJsonQueriesScanMessagesAndContextForSubstrings) {
  auto store = openWithoutExtensions(path_);
  store.insert(std::vector{
      row("unfailing 50%"),
      row("Fail", "t", RuneflowLogLevel::Info, LogRow::Context{{"k", "a/b\t\"c\\"}}),
      row("50_", "t", RuneflowLogLevel::Info, LogRow::Context{{"x", "v"}, {"y", "w"}})});
  EXPECT_FALSE(EventStore::inspect(path_).hasFullText);
  EXPECT_THAT(store.matchingSeqs(parse("fail"), 0), ElementsAre(1, 2));
  EXPECT_THAT(store.matchingSeqs(parse("50%"), 0), ElementsAre(1));
  EXPECT_THAT(store.distinctValues(StoreColumn::slot(0), parse("fail"), std::nullopt, 9),
              ElementsAre("t"));
  const auto ctx = [](const char* key, const char* value) {
    return LogQuery{QueryNode::context({key, value})};
  };
  EXPECT_THAT(store.matchingSeqs(ctx("k", "a/b\t\"c\\"), 0), ElementsAre(2));
  EXPECT_THAT(store.matchingSeqs(ctx("y", "w"), 0), ElementsAre(3));
  EXPECT_EQ(store.countMatching(ctx("y", "v")), 0);
  EXPECT_THAT(store.matchingSeqsQueryPlan(ctx("y", "w"), 0), SizeIs(1));
  EXPECT_THAT(sql(path_,
                  "SELECT count(*) FROM events WHERE json_extract(ctx, '$.\"k\"') = 'a/b' || "
                  "char(9) || '\"c\\'"),
              ElementsAre("1"));
}

TEST_F(StoreRead, recordsAreFetchedByRangeAndBySeq) {
  auto store = open();
  EXPECT_EQ(store.minSeq() + store.maxSeq() + store.count(), 0);
  const auto rows = test::rows("m", 9);
  store.insert(rows);
  EXPECT_EQ(store.fetchRange(5, 5), (std::vector{FetchedRow{5, rows[4]}}));
  EXPECT_THAT(store.fetchRange(9, 3), IsEmpty());
  EXPECT_THAT(seqsOf(store.fetchRange(INT64_MIN, INT64_MAX)), SizeIs(9));
  EXPECT_THAT(seqsOf(store.fetch(std::vector<std::int64_t>{7, 3, 7, 100, -1})), ElementsAre(3, 7));
  EXPECT_THAT(store.fetch({}), IsEmpty());
  std::vector<std::int64_t> tooMany(250'001);
  std::iota(tooMany.begin(), tooMany.end(), 0);
  EXPECT_THAT(store.fetch(tooMany), IsEmpty());
  EXPECT_THAT(seqsOf(store.fetch(std::span(tooMany).first(250'000))), SizeIs(9));
  EXPECT_THAT(store.matchingSeqs(LogQuery{}, store.maxSeq()), IsEmpty());
  EXPECT_THAT(store.matchingSeqsQueryPlan(parse("tag:x"), 0), SizeIs(1));
}

TEST_F(StoreRead, invalidStoredValuesReadBackAsDefaults) {
  auto store = open();
  sql(path_,
      "INSERT INTO events(ts,level,s0,message,ctx) VALUES"
      "(-1500000,9,'',NULL,'[1]'),(0,-1,NULL,'m','{\"a\":1}'),(1,4294967298,'x','m','{\"a\":\"b\","
      "\"a\":\"c\"}'),"
      "(2,5,'x','m','not json'),(3,0,'x','m','{}')");
  const auto records = store.fetchRange(1, 5);
  ASSERT_THAT(records, SizeIs(5));
  EXPECT_EQ(records[0].row,
            LogRow(test::at(-1.5), RuneflowLogLevel::Info, "", {}, "", {}, {}, {}, {}, {}, {}, {}));
  EXPECT_EQ(records[1].row.level(), RuneflowLogLevel::Info);
  EXPECT_EQ(records[2].row.level(),
            RuneflowLogLevel::Info);  // only the low 32 bits count; they are 2
  EXPECT_EQ(records[2].row.ctx(), (LogRow::Context{{"a", "c"}}));
  EXPECT_EQ(records[3].row.ctx(), std::nullopt);
  EXPECT_EQ(records[4].row.ctx(), LogRow::Context{});
}

TEST_F(StoreRead, frequentValuesComeFirst) {
  auto store = open();
  const auto slot0 = StoreColumn::slot(0);
  std::vector<LogRow> tagged;
  for (const char* tag : {"b", "a", "b", "50%_x", "50%_y", "50%_y", "", "é", "C"}) {
    tagged.push_back(row(fmt::format("of {}", tag), tag, RuneflowLogLevel::Error));
  }
  tagged.push_back(row("untagged"));
  store.insert(tagged);
  const std::vector<ValueCount> expected = {{"50%_y", 2}, {"b", 2}, {"50%_x", 1},
                                            {"C", 1},     {"a", 1}, {"é", 1}};
  EXPECT_EQ(store.distinctValuesWithCounts(slot0, -1), expected);
  EXPECT_EQ(store.distinctValuesWithCounts(slot0, 1), (std::vector<ValueCount>{{"50%_y", 2}}));
  EXPECT_THAT(store.distinctValues(slot0, std::nullopt, "50%_", 20), ElementsAre("50%_y", "50%_x"));
  EXPECT_THAT(store.distinctValues(slot0, LogQuery{}, "", 2), ElementsAre("50%_y", "b"));
  EXPECT_THAT(
      store.distinctValues(slot0, parse("b OR untagged level:error"), std::nullopt, INT64_MAX),
      ElementsAre("b"));
  EXPECT_THAT(store.valuesInOrder(slot0, "", -1),
              ElementsAre("50%_x", "50%_y", "C", "a", "b", "é"));
  EXPECT_THAT(store.valuesInOrder(slot0, "", 2), ElementsAre("50%_x", "50%_y"));
  EXPECT_THAT(store.valuesInOrder(slot0, "c", 9), ElementsAre("C"));
  EXPECT_THAT(store.valuesInOrder(slot0, "50%_y", 9), ElementsAre("50%_y"));
  for (const auto& other : {StoreColumn::level(), StoreColumn::timestamp(), StoreColumn::message(),
                            StoreColumn::slot(2), StoreColumn::slot(8)}) {
    EXPECT_THAT(store.valuesInOrder(other, "", 9), IsEmpty());
    EXPECT_THAT(store.distinctValues(other, std::nullopt, std::nullopt, 9), IsEmpty());
    EXPECT_THAT(store.distinctValuesWithCounts(other, 9), IsEmpty());
  }
}

TEST_F(StoreRead, aQueryThatSqliteRefusesMatchesNothing) {
  auto store = open();
  store.insert(test::rows("m", 3));
  EXPECT_EQ(
      store.countMatching(LogQuery{QueryNode::field({StoreColumn::slot(9), FieldOp::equals})}), 0);
  auto deep = QueryNode::all();
  for (int i = 0; i < 1'500; ++i) deep = QueryNode::not_(std::move(deep));
  EXPECT_THAT(store.matchingSeqs({deep}, 0), IsEmpty());
  EXPECT_EQ(store.countMatching({deep}), 0);
}

}  // namespace
}  // namespace runeflow
