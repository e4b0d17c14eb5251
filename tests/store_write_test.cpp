// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <fstream>
#include <limits>

#include "runeflow/store/event_store.h"
#include "support.h"

namespace runeflow {
namespace {

using test::at;
using test::row;
using test::rows;
using test::sql;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Optional;
using testing::StartsWith;

class StoreWrite : public testing::Test {
 protected:
  EventStore open(const SourceDescriptor& descriptor = SourceDescriptor::logcat()) {
    auto store = EventStore::open(path_, true, descriptor);
    EXPECT_TRUE(store.has_value());
    return std::move(*store);
  }
  std::vector<std::string> ask(const std::string& statement) const { return sql(path_, statement); }
  std::vector<std::string> found(const std::string& word) const {
    return ask("SELECT rowid FROM events_fts WHERE events_fts MATCH '" + word + "' ORDER BY rowid");
  }
  void expectSound() const {
    EXPECT_THAT(ask("PRAGMA integrity_check"), ElementsAre("ok"));
    EXPECT_THAT(ask("INSERT INTO events_fts(events_fts) VALUES('integrity-check')"), IsEmpty());
  }

  test::TemporaryFolder folder_;
  std::string path_ = folder_.file("a.db");
  test::CapturedLog log_;
};

TEST_F(StoreWrite, openingTwiceLeavesTheSchemaUnchanged) {
  const std::string schema = "SELECT type, name, sql FROM sqlite_schema ORDER BY rowid";
  open().close();
  const auto first = ask(schema);
  open().close();
  EXPECT_EQ(ask(schema), first);
  EXPECT_THAT(
      ask("SELECT sql FROM sqlite_schema WHERE name='events'"),
      ElementsAre("CREATE TABLE events(\n  seq INTEGER PRIMARY KEY,\n"
                  "  ts INTEGER NOT NULL, level INTEGER NOT NULL,\n"
                  "  s0 TEXT, s1 TEXT, s2 TEXT, s3 TEXT, s4 TEXT, s5 TEXT, s6 TEXT, s7 TEXT,\n"
                  "  message TEXT, ctx TEXT\n)"));
  EXPECT_THAT(
      ask("SELECT sql FROM sqlite_schema WHERE tbl_name='events' AND type='index'"),
      ElementsAre("CREATE INDEX i_s0 ON events(s0, seq)", "CREATE INDEX i_s1 ON events(s1, seq)",
                  "CREATE INDEX i_level ON events(level, seq)"));
  EXPECT_THAT(ask("PRAGMA journal_mode"), ElementsAre("wal"));
}

TEST_F(StoreWrite, aMissingFileIsCreatedOnlyOnRequest) {
  EXPECT_FALSE(EventStore::open(path_, false, SourceDescriptor::dlt()).has_value());
  EXPECT_FALSE(std::filesystem::exists(path_));
  EXPECT_FALSE(EventStore::open(path_ + "/below", true, SourceDescriptor::dlt()).has_value());
  EXPECT_FALSE(EventStore::open(path_ + '\0' + "x", true, SourceDescriptor::dlt()).has_value());
  EXPECT_FALSE(EventStore::open("", true, SourceDescriptor::dlt()).has_value());
  EXPECT_FALSE(EventStore::open(":memory:", false, SourceDescriptor::dlt()).has_value());

  const auto dlt = open(SourceDescriptor::dlt());
  EXPECT_TRUE(dlt.ftsAvailable() && dlt.jsonAvailable());
  EXPECT_THAT(ask("SELECT name FROM sqlite_schema WHERE tbl_name='events' AND type='index'"),
              ElementsAre("i_s0", "i_s1", "i_s2", "i_level"));
}

TEST_F(StoreWrite, aNameThatLooksLikeAUriIsAFileName) {
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(std::filesystem::path(path_).parent_path());
  EXPECT_TRUE(EventStore::open("file:x?mode=memory", true, SourceDescriptor::logcat()));
  EXPECT_TRUE(std::filesystem::exists("./file:x?mode=memory"));
  std::filesystem::current_path(before);
}

TEST_F(StoreWrite, anInvalidDescriptorIsLoggedAndUsed) {
  const FieldDescriptor a("a", "", StoreColumn::slot(3), true, true, true, "");
  const FieldDescriptor b("b", "", StoreColumn::slot(3), true, true, true, "");
  open({"odd", "Odd", {a, b}, {}, {}}).insert(rows("x", 1));
  EXPECT_THAT(log_.lines(), ElementsAre("store: invalid SourceDescriptor 'odd': fields 'a' and 'b' "
                                        "both map to column s3"));
  EXPECT_THAT(ask("SELECT name FROM sqlite_schema WHERE tbl_name='events' AND type='index'"),
              ElementsAre("i_s3"));
  EXPECT_THAT(ask("SELECT count(*) FROM events"), ElementsAre("1"));
}

TEST_F(StoreWrite, aRowIsStoredFieldByField) {
  auto store = open();
  store.insert(std::vector{LogRow(at(0.0000025), RuneflowLogLevel::Fatal, "grüße\nzwei",
                                  std::nullopt, "", std::nullopt, "c", "d", "e", "f", "g", "h"),
                           LogRow(at(-0.0000025), RuneflowLogLevel::Trace, "", LogRow::Context{},
                                  {}, {}, {}, {}, {}, {}, {}, {}),
                           row(std::string("cut\0here", 8), std::string("t\0u", 3))});
  EXPECT_THAT(ask("SELECT * FROM events"),
              ElementsAre("1|3|5||NULL|c|d|e|f|g|h|grüße\nzwei|NULL",
                          "2|-3|0|NULL|NULL|NULL|NULL|NULL|NULL|NULL|NULL||NULL",
                          "3|1700000000000000|2|t|NULL|NULL|NULL|NULL|NULL|NULL|NULL|cut|NULL"));
  EXPECT_THAT(found("Zwei"), ElementsAre("1"));
  EXPECT_THAT(found("cut"), ElementsAre("3"));
  EXPECT_EQ(store.insertedRows(), 3);
}

TEST_F(StoreWrite, contextIsCompactJsonThatSqliteReadsBack) {
  const std::pair<LogRow::Context, std::string> table[] = {
      {{{"k", "a/b"}}, R"({"k":"a\/b"})"},
      {{{"a", "1"}, {"b", "\"\\"}}, R"({"a":"1","b":"\"\\"})"},
      {{{"ü", "\b\f\n\r\t\x01 \x1f \x7f日"}}, "{\"ü\":\"\\b\\f\\n\\r\\t\\u0001 \\u001f \x7f日\"}"},
      {{{"bad", "\xFF"}}, "NULL"},
  };
  auto store = open();
  for (const auto& [ctx, stored] : table) {
    store.insert(std::vector{row("m", "t", RuneflowLogLevel::Info, ctx)});
    EXPECT_THAT(ask("SELECT ctx FROM events ORDER BY seq DESC LIMIT 1"), ElementsAre(stored));
    const auto last = store.fetchRange(store.maxSeq(), store.maxSeq()).at(0).row;
    EXPECT_EQ(last.ctx(), stored == "NULL" ? std::nullopt : std::optional(ctx));
  }
}

TEST_F(StoreWrite, timestampsThatDoNotFitMicrosecondsAreClampedAndLoggedOnce) {
  constexpr auto kInfinity = std::numeric_limits<double>::infinity();
  auto store = open();
  std::vector<LogRow> odd;
  for (const double seconds : {std::nan(""), kInfinity, -1e300}) {
    odd.emplace_back(at(seconds), RuneflowLogLevel::Info, "m", std::nullopt, LogRow::Slots());
  }
  store.insert(odd);
  EXPECT_THAT(ask("SELECT ts FROM events"),
              ElementsAre("0", "9223372036854775807", "-9223372036854775807"));
  EXPECT_THAT(log_.lines(), ElementsAre(HasSubstr("cannot be stored and was clamped")));
}

TEST_F(StoreWrite, aBatchIsStoredWholeOrNotAtAll) {
  auto store = open();
  store.insert(rows("before", 3));
  ask("CREATE TRIGGER full BEFORE INSERT ON events WHEN new.message='bad 300' "
      "BEGIN SELECT RAISE(ABORT, 'no room'); END");
  store.insert(rows("bad", 500));
  EXPECT_THAT(log_.lines(), ElementsAre("store: insert: write failed, dropped 500 rows: no room"));
  EXPECT_THAT(ask("SELECT count(*) FROM events"), ElementsAre("3"));
  EXPECT_THAT(found("bad"), IsEmpty());

  ask("DROP TRIGGER full");
  store.insert(rows("after", 2));
  EXPECT_THAT(ask("SELECT max(seq) FROM events"), ElementsAre("5"));
  EXPECT_THAT(found("after"), ElementsAre("4", "5"));
  EXPECT_EQ(store.insertedRows(), 5);
  expectSound();
}

TEST_F(StoreWrite, failedWritesAreLoggedWithTheirCause) {
  sql(path_, "");                // creates no file
  std::ofstream(path_).close();  // SQLite reads an empty file as a database without tables
  auto bare = EventStore::open(path_, false, SourceDescriptor::logcat());
  ASSERT_TRUE(bare.has_value());
  bare->insert(rows("x", 2));
  bare->clear();
  bare->insert({});
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(StartsWith("store: insert: statement unavailable, dropped 2 rows: no such table"),
                  "store: clear: DELETE failed: no such table: events"));
  EXPECT_EQ(bare->trimOldest(1, 10), std::nullopt);
  EXPECT_EQ(bare->count(), 0);
}

TEST_F(StoreWrite, callsOnAStoreWithoutConnectionDoNothing) {
  auto closed = open();
  closed.close();
  closed.close();
  auto inert = EventStore::inert(SourceDescriptor::dlt());
  EXPECT_FALSE(inert.ftsAvailable() || inert.jsonAvailable());
  for (auto* store : {&closed, &inert}) {
    store->insert(rows("x", 1));
    EXPECT_EQ(store->trimOldest(1, 10'000), std::nullopt);
    store->clear();
    EXPECT_EQ(store->maxSeq(), 0);
    EXPECT_THAT(store->fetchRange(1, 9), IsEmpty());
  }
  const auto* noHandle = "store: clear: DELETE failed: no database handle";
  EXPECT_THAT(log_.lines(), ElementsAre(noHandle, noHandle));
}

TEST_F(StoreWrite, clearEmptiesTheFullTextIndexAndRestartsTheSeqsAtOne) {
  auto store = open();
  store.insert(rows("old", 20));
  ask("CREATE TRIGGER keep BEFORE DELETE ON events BEGIN SELECT RAISE(ABORT, 'kept'); END");
  store.clear();
  EXPECT_THAT(log_.lines(), ElementsAre("store: clear: DELETE failed: kept"));
  EXPECT_THAT(ask("SELECT count(*) FROM events"), ElementsAre("20"));
  EXPECT_THAT(found("old"), IsEmpty());  // the index is emptied even if the rows stay
  ask("DROP TRIGGER keep");
  store.clear();
  store.insert(rows("new", 3));
  EXPECT_THAT(ask("SELECT seq FROM events"), ElementsAre("1", "2", "3"));
  EXPECT_THAT(found("new"), ElementsAre("1", "2", "3"));
  expectSound();
}

TEST_F(StoreWrite, trimDeletesTheOldestChunkOnceTheCapIsReached) {
  auto store = open();
  store.insert(rows("line", 2'500));
  const auto used = store.usedBytes();
  EXPECT_EQ(store.trimOldest(used + 1, 1'000), std::nullopt);
  for (const std::int64_t chunk : {0L, -1L, 2'147'483'648L, 4'294'967'297L}) {
    EXPECT_EQ(store.trimOldest(1, chunk), std::nullopt) << chunk;
  }
  EXPECT_EQ(store.trimOldest(0, 1'000), std::nullopt);
  EXPECT_EQ(store.count(), 2'500);

  EXPECT_THAT(store.trimOldest(used, 1'000), Optional(1'001));
  EXPECT_THAT(ask("SELECT min(seq), count(*) FROM events"), ElementsAre("1001|1500"));
  EXPECT_THAT(found("1000"), IsEmpty());
  EXPECT_THAT(found("1001"), ElementsAre("1001"));
  expectSound();

  EXPECT_THAT(store.trimOldest(1, 10'000), Optional(0));
  EXPECT_EQ(store.trimOldest(1, 10'000), std::nullopt);  // nothing is left to delete
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(StoreWrite, aTrimThatFailsDeletesNothing) {
  auto store = open();
  store.insert(rows("line", 10));
  ask("CREATE TRIGGER keep BEFORE DELETE ON events WHEN old.seq=7 "
      "BEGIN SELECT RAISE(ABORT, 'kept'); END");
  EXPECT_EQ(store.trimOldest(1, 8), std::nullopt);
  EXPECT_THAT(log_.lines(), ElementsAre("store: trim: delete failed, rolling back: kept"));
  EXPECT_EQ(store.count(), 10);
  EXPECT_EQ(found("line").size(), 10U);
  expectSound();
}

TEST_F(StoreWrite, aFileWithoutFullTextTableStoresRowsButIsNotTrimmed) {
  open().close();
  ask("DROP TABLE events_fts");
  auto store = EventStore::open(path_, false, SourceDescriptor::logcat());
  store->insert(rows("x", 2));
  EXPECT_THAT(log_.lines(), IsEmpty());
  EXPECT_EQ(store->count(), 2);
  EXPECT_EQ(store->trimOldest(1, 1), std::nullopt);
  EXPECT_THAT(log_.lines(),
              ElementsAre("store: trim: delete failed, rolling back: no such table: events_fts"));
  EXPECT_FALSE(EventStore::inspect(path_).hasFullText);
}

}  // namespace
}  // namespace runeflow
