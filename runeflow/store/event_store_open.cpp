// SPDX-License-Identifier: MIT
#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "runeflow/platform/app_log_p.h"
#include "runeflow/store/event_store.h"
#include "runeflow/store/full_text_merging_p.h"
#include "runeflow/store/open_database_p.h"

namespace runeflow {
namespace {

constexpr const char* kCreateEvents =
    "CREATE TABLE IF NOT EXISTS events(\n"
    "  seq INTEGER PRIMARY KEY,\n"
    "  ts INTEGER NOT NULL, level INTEGER NOT NULL,\n"
    "  s0 TEXT, s1 TEXT, s2 TEXT, s3 TEXT, s4 TEXT, s5 TEXT, s6 TEXT, s7 TEXT,\n"
    "  message TEXT, ctx TEXT\n"
    ");";

constexpr const char* kCreateFullText =
    "CREATE VIRTUAL TABLE IF NOT EXISTS events_fts USING fts5(message, content='events', "
    "content_rowid='seq', tokenize='unicode61');";

void applySettings(Connection& connection) {
  for (const char* setting : {"PRAGMA journal_mode=WAL;", "PRAGMA synchronous=OFF;",
                              "PRAGMA temp_store=MEMORY;", "PRAGMA busy_timeout=5000;"}) {
    connection.execute(setting);
  }
}

// SQLite takes the page cache in KiB as a negative number. 4,000 pages are 16 MB of write-ahead
// log, half of the size at which a capture empties the log.
constexpr const char* kCaptureSettings =
    "PRAGMA cache_size=-16384; PRAGMA wal_autocheckpoint=4000;";

// Does not wait for another writer: the setting only saves time, and the next capture tries again.
void mergeRarely(OpenDatabase& db) {
  static const Connection::LockWait noWait = 0;
  db.connection.waitForLocks(noWait);
  {
    Transaction transaction(db.connection, "BEGIN IMMEDIATE;");
    if (transaction.began()) setMerging(db.connection, kRareMerging);
    if (transaction.began()) transaction.commit();
  }
  db.connection.waitForLocks(*db.lockWait);
}

std::string indexName(const StoreColumn& column) {
  return "i_" + column.sql();
}

}  // namespace

EventStore::EventStore(SourceDescriptor descriptor) : descriptor_(std::move(descriptor)) {}
EventStore::EventStore(EventStore&&) noexcept = default;
EventStore& EventStore::operator=(EventStore&&) noexcept = default;
EventStore::~EventStore() = default;

std::optional<EventStore> EventStore::open(const std::string& path, bool create,
                                           SourceDescriptor descriptor) {
  EventStore store(std::move(descriptor));
  store.database_ = OpenDatabase::forWriting(path, create);
  if (!store.database_) return std::nullopt;
  store.probeCapabilities();
  applySettings(store.database_->connection);
  // Setting the busy timeout has replaced the wait for locks.
  store.database_->connection.waitForLocks(*store.database_->lockWait);
  if (create) store.createSchema();
  return store;
}

std::optional<EventStore> EventStore::openForReading(const std::string& path,
                                                     SourceDescriptor descriptor) {
  EventStore store(std::move(descriptor));
  store.database_ = OpenDatabase::forReading(path);
  if (!store.database_) return std::nullopt;
  store.probeCapabilities();
  return store;
}

void EventStore::probeCapabilities() {
  auto& connection = database_->connection;
  ftsAvailable_ =
      connection.execute("CREATE VIRTUAL TABLE IF NOT EXISTS temp.__fts_probe USING fts5(x);");
  connection.execute("DROP TABLE IF EXISTS temp.__fts_probe;");
  jsonAvailable_ = connection.execute("SELECT json_extract('{}', '$.x');");
}

StoreInfo EventStore::inspect(const std::string& path) {
  const auto database = OpenDatabase::forReading(path);
  StoreInfo info;
  if (!database) {
    info.fault = StoreFault::cannotOpen;
    info.faultText = "unable to open database file";
    return info;
  }
  info = reading(database.get(), [](OpenDatabase& db) {
    StoreInfo found;
    found.isEmpty = db.scalar("SELECT count(*) FROM sqlite_schema") == 0;
    // A view may run any query, also one that never ends.
    const bool isView = db.scalar(
                            "SELECT count(*) FROM sqlite_schema WHERE type='view' AND "
                            "name='events' COLLATE NOCASE") > 0;
    if (isView) {
      db.note({StoreFault::refused, "events is a view, not a table"});
      return found;
    }
    Statement events = db.prepare("SELECT seq,ts,level,message FROM events LIMIT 1");
    db.forEachRow(events, [] {});
    found.hasFullText = static_cast<bool>(db.prepare("SELECT rowid FROM events_fts LIMIT 1"));
    Statement names = db.prepare(
        "SELECT name FROM sqlite_schema WHERE type='index' AND tbl_name='events' ORDER BY rowid");
    db.forEachRow(names, [&] { found.indexes.push_back(names.optionalText(0).value_or("")); });
    return found;
  });
  if (const auto& failure = database->failure) {
    const bool lacksTable = failure->fault == StoreFault::refused;  // or one of its columns
    info.fault = lacksTable ? StoreFault::noEvents : failure->fault;
    info.faultText = failure->text;
  }
  return info;
}

bool StoreInfo::hasIndexesOf(const SourceDescriptor& descriptor) const {
  return std::ranges::is_permutation(indexes, descriptor.indexedColumns(), {}, {}, indexName);
}

EventStore EventStore::inert(SourceDescriptor descriptor) {
  return EventStore(std::move(descriptor));
}

void EventStore::prepareForCapture() {
  if (!database_) return;
  database_->connection.execute(kCaptureSettings);
  if (ftsAvailable_) mergeRarely(*database_);
}

void EventStore::close() {
  database_.reset();
}

std::optional<StoreError> EventStore::takeError() {
  return database_ ? std::exchange(database_->failure, std::nullopt) : std::nullopt;
}

bool EventStore::hasLostItsFile() const {
  return database_ && !FileState::of(database_->path).isSameFile(database_->openedAs);
}

void EventStore::setLockWait(std::shared_ptr<std::atomic<std::int64_t>> milliseconds) {
  if (!database_) return;
  database_->connection.waitForLocks(*milliseconds);
  database_->lockWait = std::move(milliseconds);
}

void EventStore::setCancellation(std::shared_ptr<const std::atomic<bool>> isCancelled) {
  if (database_) database_->cancellation = std::move(isCancelled);
}

EventStore::Snapshot::Snapshot(EventStore& store) : store_(store) {
  if (!store_.database_) return;
  store_.database_->reopenIfChanged(false);
  store_.database_->isInSnapshot = true;
  store_.database_->connection.execute("BEGIN;");
}

EventStore::Snapshot::~Snapshot() {
  if (!store_.database_) return;
  store_.database_->connection.execute("COMMIT;");
  store_.database_->isInSnapshot = false;
}

bool EventStore::Snapshot::isDisturbed() const {
  const auto* database = store_.database_.get();
  return database && database->isUnwatched && FileState::of(database->path) != database->openedAs;
}

// Ignores the results: if a statement fails, the writes and reads that need its table fail later.
void EventStore::createSchema() {
  if (const auto fault = descriptor_.validationError()) {
    AppLog::logError(AppLog::store(), "invalid SourceDescriptor '{}': {}", descriptor_.id(),
                     *fault);
  }
  auto& db = database_->connection;
  db.execute(kCreateEvents);
  for (const auto& column : descriptor_.indexedColumns()) {
    db.execute(fmt::format("CREATE INDEX IF NOT EXISTS {} ON events({}, seq);", indexName(column),
                           column.sql())
                   .c_str());
  }
  if (ftsAvailable_) db.execute(kCreateFullText);
}

}  // namespace runeflow
