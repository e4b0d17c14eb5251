#include <fmt/format.h>
#include <sqlite3.h>

#include <algorithm>
#include <utility>

#include "runeflow/platform/app_log_p.h"
#include "runeflow/store/event_store.h"
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

// SQLite takes the empty name for a temporary database, and a NUL ends the name.
Connection openFile(const std::string& path, int flags) {
  if (path.empty() || path.find('\0') != std::string::npos) return {};
  return Connection::open(path, flags | SQLITE_OPEN_NOMUTEX);
}

void applySettings(Connection& connection) {
  for (const char* setting : {"PRAGMA journal_mode=WAL;", "PRAGMA synchronous=OFF;",
                              "PRAGMA temp_store=MEMORY;", "PRAGMA busy_timeout=5000;"}) {
    connection.execute(setting);
  }
}

std::string indexName(const StoreColumn& column) {
  return "i_" + column.sql();
}

StoreFault faultOf(const Connection& connection) {
  static constexpr std::pair<int, StoreFault> kFaults[] = {
      {SQLITE_ERROR, StoreFault::noEvents},  // no such table, no such column
      {SQLITE_NOTADB, StoreFault::notADatabase}, {SQLITE_CORRUPT, StoreFault::damaged},
      {SQLITE_CANTOPEN, StoreFault::cannotOpen}, {SQLITE_READONLY, StoreFault::readOnly},
      {SQLITE_BUSY, StoreFault::locked},
  };
  const auto* found =
      std::ranges::find(kFaults, connection.errorCode(), [](const auto& row) { return row.first; });
  return found == std::end(kFaults) ? StoreFault::other : found->second;
}

}  // namespace

EventStore::EventStore(SourceDescriptor descriptor) : descriptor_(std::move(descriptor)) {}
EventStore::EventStore(EventStore&&) noexcept = default;
EventStore& EventStore::operator=(EventStore&&) noexcept = default;
EventStore::~EventStore() = default;

std::optional<EventStore> EventStore::open(const std::string& path, bool create,
                                           SourceDescriptor descriptor) {
  auto connection = openFile(path, SQLITE_OPEN_READWRITE | (create ? SQLITE_OPEN_CREATE : 0));
  if (!connection) return std::nullopt;
  EventStore store(std::move(descriptor));
  store.ftsAvailable_ =
      connection.execute("CREATE VIRTUAL TABLE IF NOT EXISTS temp.__fts_probe USING fts5(x);");
  connection.execute("DROP TABLE IF EXISTS temp.__fts_probe;");
  store.jsonAvailable_ = connection.execute("SELECT json_extract('{}', '$.x');");
  applySettings(connection);
  store.database_ = std::make_unique<OpenDatabase>(std::move(connection));
  if (create) store.createSchema();
  return store;
}

StoreInfo EventStore::inspect(const std::string& path) {
  StoreInfo info;
  Connection db = openFile(path, SQLITE_OPEN_READONLY);
  const auto failed = [&] {
    info.fault = db ? faultOf(db) : StoreFault::cannotOpen;
    info.faultText = db ? db.errorText() : "unable to open database file";
    return info;
  };
  Statement tables = db.prepare("SELECT count(*) FROM sqlite_schema");
  if (!tables || !tables.stepsToRow()) return failed();
  info.isEmpty = tables.integer(0) == 0;
  Statement view =
      db.prepare("SELECT 1 FROM sqlite_schema WHERE type='view' AND name='events' COLLATE NOCASE");
  if (view && view.stepsToRow()) {
    info.fault = StoreFault::noEvents;
    info.faultText = "events is a view, not a table";
    return info;
  }
  Statement events = db.prepare("SELECT seq,ts,level,message FROM events LIMIT 1");
  if (!events || events.step() == Statement::Step::error) return failed();
  info.hasFullText = static_cast<bool>(db.prepare("SELECT rowid FROM events_fts LIMIT 1"));
  Statement names = db.prepare(
      "SELECT name FROM sqlite_schema WHERE type='index' AND tbl_name='events' ORDER BY rowid");
  while (names && names.stepsToRow()) {
    info.indexes.push_back(names.optionalText(0).value_or(""));
  }
  return info;
}

bool StoreInfo::hasIndexesOf(const SourceDescriptor& descriptor) const {
  return std::ranges::is_permutation(indexes, descriptor.indexedColumns(), {}, {}, indexName);
}

EventStore EventStore::inert(SourceDescriptor descriptor) {
  return EventStore(std::move(descriptor));
}

void EventStore::close() {
  database_.reset();
}

// A statement that fails here shows later: the writes and reads that need its table fail.
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
