// SPDX-License-Identifier: MIT

// The store beside other connections, on damaged files, and when a read or write is cut short.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include "runeflow/query/query_parser.h"
#include "runeflow/store/event_store.h"
#include "support.h"

namespace runeflow {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using test::row;
using test::rows;
using test::sql;
using testing::AllOf;
using testing::ElementsAre;
using testing::Field;
using testing::Ge;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Le;
using testing::Optional;

constexpr std::int64_t kLargeCap = std::int64_t{1} << 40;

class StoreSafety : public testing::Test {
 protected:
  EventStore open() const { return *EventStore::open(path_, true, SourceDescriptor::logcat()); }
  EventStore openForReading(const std::string& path) const {
    return *EventStore::openForReading(path, SourceDescriptor::logcat());
  }
  static LogQuery query(std::string_view typed) {
    return QueryParser::parse(typed, SourceDescriptor::logcat(), false);
  }
  void expectSound() {
    const auto check = open().check();
    EXPECT_THAT(check.faults, IsEmpty());
    EXPECT_TRUE(check.isFullTextChecked);
    EXPECT_EQ(check.fullTextFault, "");
  }
  // Every file of the folder with a hash of its bytes. The index of a log in use is left out: the
  // connections of one process share it, and the writer's right to write with it.
  std::map<std::string, std::size_t> files(bool isLogInUse = false) const {
    std::map<std::string, std::size_t> found;
    for (const auto& entry : std::filesystem::directory_iterator(folder_.file(""))) {
      std::ostringstream bytes;
      bytes << std::ifstream(entry.path(), std::ios::binary).rdbuf();
      const auto name = entry.path().filename().string();
      if (!isLogInUse || !name.ends_with("-shm"))
        found[name] = std::hash<std::string>{}(bytes.str());
    }
    return found;
  }

  test::TemporaryFolder folder_;
  std::string path_ = folder_.file("a.db");
  test::CapturedLog log_;
};

testing::Matcher<std::optional<StoreError>> failsBy(StoreFault fault) {
  return Optional(Field(&StoreError::fault, fault));
}

TEST_F(StoreSafety, writersTrimsAndClearsOnOneFileLeaveTheIndexSound) {
  open().close();
  std::atomic<int> writing = 2;
  const auto write = [&](const std::string& word) {
    auto store = open();
    for (int batch = 0; batch < 60; ++batch) {
      store.insert(rows(word, 50));
      store.trimOldest(batch % 3 == 0 ? 1 : 100'000, 70);
    }
    --writing;
  };
  std::jthread alpha(write, "alpha");
  std::jthread beta(write, "beta");
  auto store = open();
  while (writing > 0) {
    store.clear();
    std::this_thread::sleep_for(5ms);
  }
  alpha.join();
  beta.join();
  expectSound();
  EXPECT_EQ(store.countMatching(query("alpha OR beta")), store.count());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(StoreSafety, aWriteThatMeetsALockWaitsAsLongAsItMay) {
  auto store = open();
  store.insert(rows("line", 20));
  const auto wait = std::make_shared<std::atomic<std::int64_t>>(30);
  store.setLockWait(wait);
  {
    const test::OtherConnection lock(path_, "BEGIN IMMEDIATE");
    const auto begin = std::chrono::steady_clock::now();
    store.clear();
    EXPECT_EQ(store.trimOldest(1, 5), std::nullopt);
    store.insert(rows("lost", 1));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 3s);
    EXPECT_THAT(log_.lines(),
                ElementsAre("store: clear: DELETE failed: database is locked",
                            "store: trim: BEGIN failed: database is locked",
                            "store: insert: write failed, dropped 1 rows: database is locked"));
    EXPECT_THAT(store.takeError(), failsBy(StoreFault::locked));
    EXPECT_EQ(store.takeError(), std::nullopt);
    EXPECT_EQ(store.countMatching(query("line")), 20);

    // Another thread may end a wait that has begun.
    *wait = 60'000;
    const std::jthread impatient([&] {
      std::this_thread::sleep_for(50ms);
      *wait = 0;
    });
    store.clear();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 10s);
  }
  *wait = 10'000;
  auto lock = std::make_unique<test::OtherConnection>(path_, "BEGIN IMMEDIATE");
  const std::jthread release([&] {
    std::this_thread::sleep_for(50ms);
    lock.reset();
  });
  store.insert(rows("late", 3));  // the batch that met the lock does not hinder this one
  EXPECT_EQ(store.count(), 23);
}

TEST_F(StoreSafety, aCaptureSetsHowTheFullTextIndexMergesUnlessSomebodyHasChosen) {
  const auto merging = [&] {
    return sql(path_, "SELECT k||v FROM events_fts_config WHERE k LIKE '%merge' ORDER BY k");
  };
  auto store = open();
  auto lock = std::make_unique<test::OtherConnection>(path_, "BEGIN IMMEDIATE");
  const auto begin = std::chrono::steady_clock::now();
  store.prepareForCapture();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 3s);
  EXPECT_THAT(merging(), IsEmpty());
  std::jthread release([&] {
    std::this_thread::sleep_for(50ms);
    lock.reset();
  });
  store.insert(rows("late", 3));  // other writes wait for locks as before
  EXPECT_EQ(store.count(), 3);
  release.join();
  store.prepareForCapture();
  EXPECT_THAT(merging(), ElementsAre("automerge16", "crisismerge32"));
  for (int i = 0; i < 300; ++i) store.insert(rows(fmt::format("word{} common", i % 7), 10));
  expectSound();

  store.trimOldest(1, 503);  // deleted entries would stay in an index that is rarely merged
  EXPECT_THAT(merging(), ElementsAre("automerge4", "crisismerge16"));
  EXPECT_EQ(store.countMatching(query("common")), 2'500);
  EXPECT_EQ(store.countMatching(query("word3")), 360);
  expectSound();
  store.prepareForCapture();
  EXPECT_THAT(merging(), ElementsAre("automerge16", "crisismerge32"));

  const test::OtherConnection user(
      path_, "INSERT INTO events_fts(events_fts, rank) VALUES('automerge', 8)");
  store.prepareForCapture();
  store.trimOldest(1, 10);
  EXPECT_THAT(merging(), ElementsAre("automerge8", "crisismerge32"));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(StoreSafety, aBoundedTrimCountsRecordsAndMessageBytesAndKeepsTheNewest) {
  auto store = open();
  store.insert(std::vector(20, row(std::string(1'000, 'x'))));
  EXPECT_EQ(store.trimWithin(kLargeCap, 5, 5'000), 0);
  EXPECT_EQ(store.trimWithin(1, 0, 5'000), 0);
  EXPECT_EQ(store.trimWithin(1, 3, 100'000), 3);
  EXPECT_EQ(store.trimWithin(1, 100, 4'000), 4);
  EXPECT_EQ(store.trimWithin(1, 100, 4'001), 5);
  EXPECT_EQ(store.trimWithin(1, 100, 1'000'000), 7);
  EXPECT_EQ(store.trimWithin(1, 100, 1'000'000), 0);
  EXPECT_EQ(store.minSeq(), 20);
  expectSound();
}

TEST_F(StoreSafety, aDamagedIndexIsSaidOnceFoundByTheCheckAndRebuilt) {
  auto store = open();
  store.insert(rows("alpha", 3));
  sql(path_, "UPDATE events SET message = 'beta' WHERE seq = 1");
  const auto damaged = store.check();
  EXPECT_THAT(damaged.faults, IsEmpty());
  EXPECT_THAT(damaged.fullTextFault, HasSubstr("malformed"));
  EXPECT_TRUE(store.rebuildFullText());
  EXPECT_EQ(store.countMatching(query("beta")), 1);
  expectSound();

  // As if another program had deleted the entries of rows that it keeps.
  for (const auto* entry : {"1, 'beta'", "2, 'alpha 2'", "3, 'alpha 3'"}) {
    sql(path_, fmt::format("INSERT INTO events_fts(events_fts, rowid, message) "
                           "VALUES('delete', {})",
                           entry));
  }
  EXPECT_EQ(store.trimOldest(1, 1), std::nullopt);
  EXPECT_EQ(store.trimOldest(1, 1), std::nullopt);
  EXPECT_THAT(store.takeError(), failsBy(StoreFault::damaged));
  const std::string fails =
      "store: trim: delete failed, rolling back: database disk image is malformed";
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(fails, AllOf(HasSubstr("runeflow check --repair"), HasSubstr(path_)), fails));
  EXPECT_TRUE(store.rebuildFullText());
  expectSound();
  EXPECT_THAT(store.trimOldest(1, 1), Optional(2));

  // A page of the table that holds something else.
  store.insert(rows(std::string(2'000, 'y'), 200));
  store.close();
  std::fstream(path_, std::ios::binary | std::ios::in | std::ios::out)
      .seekp(static_cast<std::streamoff>(std::filesystem::file_size(path_) / 2))
      .write(std::string(8'192, '\xff').data(), 8'192);
  auto reader = openForReading(path_);
  EXPECT_THAT(reader.check().faults, testing::Not(IsEmpty()));
  const auto found = reader.fetchRange(1, 1'000);
  EXPECT_LT(found.size(), 202U);
  EXPECT_THAT(reader.takeError(), failsBy(StoreFault::damaged));
}

TEST_F(StoreSafety, aQueryThatIsTooLargeFailsForListAndCountAlike) {
  auto store = open();
  store.insert(rows("a", 2));
  int refused = 0;
  for (int conditions = 985; conditions <= 1'005; ++conditions) {
    std::vector<QueryNode> children(static_cast<std::size_t>(conditions), query("level:info").root);
    const LogQuery large{QueryNode::and_(std::move(children))};
    const bool hasList = store.matchingSeqs(large, 0).size() == 2;
    const auto listError = store.takeError();
    EXPECT_EQ(store.countMatching(large) == 2, hasList) << conditions;
    EXPECT_EQ(store.takeError(), listError) << conditions;
    EXPECT_EQ(listError.has_value(), !hasList) << conditions;
    if (!hasList) {
      EXPECT_THAT(listError, failsBy(StoreFault::refused));
    }
    refused += hasList ? 0 : 1;
  }
  EXPECT_THAT(refused, AllOf(Ge(1), Le(20)));
}

TEST_F(StoreSafety, textEndsAtItsFirstNulInEveryForm) {
  auto store = open();
  store.insert(std::vector{row("alpha beta"), row("gamma")});
  using namespace std::string_view_literals;
  const std::pair<std::string_view, std::int64_t> table[] = {
      {"alp\0x"sv, 1}, {"alp\0 OR gamma"sv, 2}, {"gamma OR be\0t"sv, 1}, {"\0 OR gamma"sv, 1}};
  for (const auto& [typed, expected] : table) {
    EXPECT_EQ(store.countMatching(query(typed)), expected) << typed;
    EXPECT_EQ(store.matchingSeqs(query(typed), 0).size(), expected) << typed;
  }
  const LogQuery scan{QueryNode::fullText({"eta\0x"s, FullTextMode::substringScan()})};
  EXPECT_EQ(store.countMatching(scan), 1);
  const LogQuery within{QueryNode::fullText({"alph\0x"s, FullTextMode::substringScan()})};
  EXPECT_EQ(store.countMatching(within), 1);  // more text follows in the message
}

TEST_F(StoreSafety, aReaderChangesNoFileAndSeesEveryRecord) {
  for (const auto* name : {"a.db", "b?c#d%20e.db", "file:f.db", ":memory:"}) {
    SCOPED_TRACE(name);
    path_ = folder_.file(name);
    auto store = open();
    store.insert(rows("line", 10));
    store.close();
    auto before = files();
    auto reader = openForReading(path_);
    EXPECT_EQ(reader.count(), 10);
    EXPECT_FALSE(EventStore::inspect(path_).isEmpty);
    EXPECT_EQ(files(), before);

    // A capture begins, goes on, is killed, and another one ends in order.
    store = open();
    store.insert(rows("line", 10));
    before = files(true);
    EXPECT_EQ(reader.count(), 20);
    EXPECT_EQ(openForReading(path_).countMatching(query("line")), 20);
    EXPECT_TRUE(EventStore::inspect(path_).hasFullText);
    EXPECT_EQ(files(true), before);
    store.insert(rows("line", 1));
    EXPECT_EQ(reader.maxSeq(), 21);

    const auto killed = folder_.file("killed.db");
    for (const auto* suffix : {"", "-wal", "-shm"}) {
      std::filesystem::copy_file(path_ + suffix, killed + suffix);
    }
    before = files();
    EXPECT_EQ(openForReading(killed).count(), 21);
    EXPECT_EQ(files(), before);
    for (const auto* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(killed + suffix);

    reader.close();
    store.close();
    reader = openForReading(path_);
    EXPECT_EQ(reader.count(), 21);
    open().insert(rows("line", 4));  // opened, written and closed between two reads
    EXPECT_EQ(reader.count(), 25);
    EXPECT_EQ(reader.fetchRange(25, 25).size(), 1U);
    EXPECT_EQ(reader.takeError(), std::nullopt);
    reader.clear();
    EXPECT_THAT(reader.takeError(), failsBy(StoreFault::readOnly));
    EXPECT_EQ(reader.count(), 25);
  }
}

TEST_F(StoreSafety, aFileThatIsDeletedOrReplacedIsNoticed) {
  open().insert(rows("line", 1));
  auto writer = open();
  auto reader = openForReading(path_);
  EXPECT_EQ(reader.count(), 1);
  EXPECT_FALSE(writer.hasLostItsFile() || reader.hasLostItsFile());
  std::filesystem::rename(path_, path_ + ".old");
  EXPECT_TRUE(writer.hasLostItsFile() && reader.hasLostItsFile());
  open().close();
  EXPECT_TRUE(writer.hasLostItsFile() && reader.hasLostItsFile());
  EXPECT_FALSE(open().hasLostItsFile());
}

TEST_F(StoreSafety, aSnapshotShowsOneMoment) {
  auto store = open();
  store.insert(rows("line", 10));
  auto reader = openForReading(path_);
  {
    const EventStore::Snapshot moment(reader);
    EXPECT_EQ(reader.count(), 10);
    store.insert(rows("line", 10));
    EXPECT_EQ(reader.maxSeq(), 10);
  }
  EXPECT_EQ(reader.maxSeq(), 20);
}

TEST_F(StoreSafety, aSnapshotTellsIfAWriterCameMeanwhile) {
  open().insert(rows("line", 10));
  auto reader = openForReading(path_);
  const EventStore::Snapshot moment(reader);
  EXPECT_EQ(reader.count(), 10);
  EXPECT_FALSE(moment.isDisturbed());
  open().insert(rows("line", 10));
  EXPECT_TRUE(moment.isDisturbed());
}

TEST_F(StoreSafety, whatIsNotCheckedOrRebuiltIsNoDamage) {
  auto store = open();
  store.insert(rows("line", 3));
  store.setLockWait(std::make_shared<std::atomic<std::int64_t>>(0));
  {
    const test::OtherConnection lock(path_, "BEGIN IMMEDIATE");
    const auto found = store.check();
    EXPECT_FALSE(found.isFullTextChecked);
    EXPECT_EQ(found.fullTextFault, "");
    EXPECT_THAT(store.takeError(), failsBy(StoreFault::locked));
    EXPECT_FALSE(store.rebuildFullText());
    EXPECT_THAT(store.takeError(), failsBy(StoreFault::locked));
  }
  expectSound();
  // An index that cannot be emptied keeps its records, which it would otherwise find later.
  sql(path_, "DROP TABLE events_fts_idx");
  store.clear();
  EXPECT_NE(store.takeError(), std::nullopt);
  EXPECT_EQ(store.count(), 3);
}

TEST_F(StoreSafety, theLogIsEmptiedUnlessAReaderUsesIt) {
  auto store = open();
  store.insert(rows("line", 1'000));
  EXPECT_GT(store.logBytes(), 10'000);
  {
    const test::OtherConnection reader(path_, "BEGIN; SELECT * FROM events");
    store.insert(rows("line", 1));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(store.emptyLog(50ms));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s);
  }
  EXPECT_TRUE(store.emptyLog(50ms));
  EXPECT_EQ(store.logBytes(), 0);
  EXPECT_EQ(store.count(), 1'001);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(StoreSafety, aRecordLargerThanSqliteTakesIsLeftOutAndTheOthersAreStored) {
  auto store = open();
  std::vector<LogRow> batch;
  batch.push_back(row("before"));
  batch.push_back(row(std::string(1'000'000'001, 'x')));
  batch.push_back(row("after"));
  store.insert(batch);
  EXPECT_EQ(store.insertedRows(), 2);
  EXPECT_THAT(sql(path_, "SELECT message FROM events"), ElementsAre("before", "after"));
  EXPECT_THAT(log_.lines(), ElementsAre(HasSubstr("insert: dropped a record of 1000")));
}
#endif

}  // namespace
}  // namespace runeflow
