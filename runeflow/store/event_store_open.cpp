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

std::optional<StoreColumn> columnOfIndex(const std::string& name) {
  std::vector<StoreColumn> columns = {StoreColumn::level(), StoreColumn::timestamp(),
                                      StoreColumn::message()};
  for (int slot = 0; slot < static_cast<int>(LogRow::slotCount); ++slot) {
    columns.push_back(StoreColumn::slot(slot));
  }
  const auto found = std::ranges::find(columns, name, indexName);
  return found == columns.end() ? std::nullopt : std::optional(*found);
}

StoreFault faultOf(const Connection& connection) {
  if (!connection) return StoreFault::cannotOpen;
  switch (connection.errorCode()) {
    case SQLITE_ERROR:  // no such table, no such column
      return StoreFault::noEvents;
    case SQLITE_NOTADB:
      return StoreFault::notADatabase;
    case SQLITE_CORRUPT:
      return StoreFault::damaged;
    case SQLITE_CANTOPEN:
      return StoreFault::cannotOpen;
    case SQLITE_READONLY:
      return StoreFault::readOnly;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return StoreFault::locked;
    default:
      return StoreFault::other;
  }
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
    info.fault = faultOf(db);
    info.faultText = db ? db.errorText() : "unable to open database file";
    return info;
  };
  Statement tables = db.prepare("SELECT count(*) FROM sqlite_schema");
  if (!tables || !tables.stepsToRow()) return failed();
  info.isEmpty = tables.integer(0) == 0;
  Statement events = db.prepare("SELECT seq,ts,level,message FROM events LIMIT 1");
  if (!events || events.step() == Statement::Step::error) return failed();
  info.hasFullText = static_cast<bool>(db.prepare("SELECT rowid FROM events_fts LIMIT 1"));
  Statement names = db.prepare(
      "SELECT name FROM sqlite_schema WHERE type='index' AND tbl_name='events' ORDER BY rowid");
  while (names && names.stepsToRow()) {
    const auto& name = info.indexes.emplace_back(names.text(0));
    if (const auto column = columnOfIndex(name)) info.indexedColumns.push_back(*column);
  }
  return info;
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
