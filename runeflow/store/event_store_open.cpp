#include <fmt/format.h>
#include <sqlite3.h>

#include "runeflow/platform/app_log_p.h"
#include "runeflow/store/event_store.h"

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

// To SQLite the empty name is a temporary database, and a NUL ends the name.
Connection openFile(const std::string& path, int flags) {
  if (path.empty() || path.find('\0') != std::string::npos) return {};
  return Connection::open(path, flags | SQLITE_OPEN_NOMUTEX);
}

}  // namespace

std::optional<EventStore> EventStore::open(const std::string& path, bool create,
                                           SourceDescriptor descriptor) {
  EventStore store(std::move(descriptor));
  store.db_ = openFile(path, SQLITE_OPEN_READWRITE | (create ? SQLITE_OPEN_CREATE : 0));
  if (!store.db_) return std::nullopt;
  store.probeCapabilities();
  store.applySettings();
  if (create) store.createSchema();
  return store;
}

StoreInfo EventStore::inspect(const std::string& path) {
  StoreInfo info;
  Connection db = openFile(path, SQLITE_OPEN_READONLY);
  const auto failed = [&] {
    info.error = db ? db.errorText() : "unable to open database file";
    return info;
  };
  Statement tables = db.prepare("SELECT count(*) FROM sqlite_schema");
  if (!tables || !tables.stepsToRow()) return failed();
  info.isEmpty = tables.integer(0) == 0;
  Statement events = db.prepare("SELECT seq,ts,level,message FROM events LIMIT 1");
  if (!events || events.step() == Statement::Step::error) return failed();
  info.hasEvents = true;
  info.hasFullText = static_cast<bool>(db.prepare("SELECT rowid FROM events_fts LIMIT 1"));
  Statement names = db.prepare(
      "SELECT name FROM sqlite_schema WHERE type='index' AND tbl_name='events' ORDER BY rowid");
  while (names && names.stepsToRow()) info.indexes.push_back(names.text(0));
  return info;
}

EventStore EventStore::inert(SourceDescriptor descriptor) {
  return EventStore(std::move(descriptor));
}

void EventStore::close() {
  insertStmt_.finalize();
  ftsInsertStmt_.finalize();
  db_.close();
}

void EventStore::probeCapabilities() {
  ftsAvailable_ = db_.execute("CREATE VIRTUAL TABLE IF NOT EXISTS temp.__fts_probe USING fts5(x);");
  db_.execute("DROP TABLE IF EXISTS temp.__fts_probe;");
  jsonAvailable_ = db_.execute("SELECT json_extract('{}', '$.x');");
}

void EventStore::applySettings() {
  for (const char* setting : {"PRAGMA journal_mode=WAL;", "PRAGMA synchronous=OFF;",
                              "PRAGMA temp_store=MEMORY;", "PRAGMA busy_timeout=5000;"}) {
    db_.execute(setting);
  }
}

// A statement that fails here shows later, in the writes and reads that miss it.
void EventStore::createSchema() {
  if (const auto fault = descriptor_.validationError()) {
    AppLog::logError(AppLog::store(), "invalid SourceDescriptor '{}': {}", descriptor_.id(),
                     *fault);
  }
  db_.execute(kCreateEvents);
  for (const auto& column : descriptor_.indexedColumns()) {
    const auto name = column.sql();
    db_.execute(fmt::format("CREATE INDEX IF NOT EXISTS i_{0} ON events({0}, seq);", name).c_str());
  }
  if (ftsAvailable_) db_.execute(kCreateFullText);
}

}  // namespace runeflow
