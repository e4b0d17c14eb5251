#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "runeflow/model/json_text_p.h"
#include "runeflow/platform/app_log_p.h"
#include "runeflow/store/event_store.h"
#include "runeflow/store/open_database_p.h"

namespace runeflow {
namespace {

constexpr const char* kInsertRow =
    "INSERT INTO events(ts,level,s0,s1,s2,s3,s4,s5,s6,s7,message,ctx) "
    "VALUES(?,?,?,?,?,?,?,?,?,?,?,?)";
constexpr const char* kInsertFullText = "INSERT INTO events_fts(rowid, message) VALUES(?,?)";

constexpr int kFirstSlotParameter = 3;
constexpr int kMessageParameter = kFirstSlotParameter + static_cast<int>(LogRow::slotCount);
constexpr int kContextParameter = kMessageParameter + 1;

void bindContext(Statement& statement, const std::optional<LogRow::Context>& ctx) {
  if (!ctx || ctx->empty()) {
    statement.bindNull(kContextParameter);
  } else {
    statement.bind(kContextParameter, jsonObject(*ctx));
  }
}

// Without its full-text statement (the file was made by an SQLite without FTS5) rows are stored and
// not indexed.
bool prepareInserts(OpenDatabase& database, bool ftsAvailable) {
  auto& [connection, insertRow, insertFullText, hasLogged] = database;
  if (!insertRow) insertRow = connection.prepare(kInsertRow);
  if (ftsAvailable && !insertFullText) insertFullText = connection.prepare(kInsertFullText);
  return static_cast<bool>(insertRow);
}

std::int64_t storableMicroseconds(OpenDatabase& database, Timestamp timestamp) {
  if (const auto microseconds = microsecondsSinceEpoch(timestamp)) return *microseconds;
  const double seconds = timestamp.time_since_epoch().count();
  if (!std::exchange(database.hasLoggedClampedTimestamp, true)) {
    AppLog::logError(AppLog::store(),
                     "insert: a timestamp of {} s cannot be stored and was clamped", seconds);
  }
  if (std::isnan(seconds)) return 0;
  constexpr auto kFarthest = std::numeric_limits<std::int64_t>::max();
  return seconds > 0 ? kFarthest : -kFarthest;
}

// Statements are reset before use, not after, because a failed batch leaves them where they were.
bool writeRow(OpenDatabase& database, const LogRow& row) {
  auto& [connection, insertRow, insertFullText, hasLogged] = database;
  insertRow.reset();
  insertRow.bind(1, storableMicroseconds(database, row.timestamp()));
  insertRow.bind(2, rawValue(row.level()));
  for (int slot = 0; slot < static_cast<int>(LogRow::slotCount); ++slot) {
    insertRow.bind(kFirstSlotParameter + slot, row.slot(slot));
  }
  insertRow.bind(kMessageParameter, row.message());
  bindContext(insertRow, row.ctx());
  if (!insertRow.stepsToEnd()) return false;

  if (!insertFullText) return true;
  insertFullText.reset();
  insertFullText.bind(1, connection.lastInsertRowId());
  insertFullText.bind(2, row.message());
  return insertFullText.stepsToEnd();
}

// A row that a trim deletes. The full-text index has no content of its own: to delete an entry, it
// must be given the message that it indexed.
struct TrimmedRow {
  std::int64_t seq;
  std::optional<std::string> message;
};

std::vector<TrimmedRow> oldestRows(Connection& connection, std::int32_t chunk) {
  std::vector<TrimmedRow> rows;
  Statement oldest = connection.prepare("SELECT seq, message FROM events ORDER BY seq LIMIT ?");
  if (!oldest) return rows;
  oldest.bindInt32(1, chunk);
  while (oldest.stepsToRow()) rows.push_back({oldest.integer(0), oldest.optionalText(1)});
  return rows;
}

bool deleteFromIndex(Connection& connection, const std::vector<TrimmedRow>& rows) {
  Statement remove = connection.prepare(
      "INSERT INTO events_fts(events_fts, rowid, message) VALUES('delete', ?, ?)");
  if (!remove) return false;
  for (const auto& row : rows) {
    remove.reset();
    remove.bind(1, row.seq);
    remove.bind(2, row.message);
    if (!remove.stepsToEnd()) return false;
  }
  return true;
}

bool deleteUpTo(Connection& connection, std::int64_t seq) {
  Statement remove = connection.prepare("DELETE FROM events WHERE seq <= ?");
  if (!remove) return false;
  remove.bind(1, seq);
  return remove.stepsToEnd();
}

// Returns how many rows it deleted.
std::size_t deleteOldest(Connection& connection, std::int32_t chunk, bool ftsAvailable) {
  const auto rows = oldestRows(connection, chunk);
  if (rows.empty()) return 0;
  Transaction transaction(connection);
  if (!transaction.began()) {
    AppLog::logError(AppLog::store(), "trim: BEGIN failed: {}", connection.errorText());
    return 0;
  }
  const bool isDeleted = (!ftsAvailable || deleteFromIndex(connection, rows)) &&
                         deleteUpTo(connection, rows.back().seq);
  if (isDeleted && transaction.commit()) return rows.size();
  AppLog::logError(AppLog::store(), "trim: delete failed, rolling back: {}",
                   connection.errorText());
  return 0;
}

}  // namespace

void EventStore::insert(std::span<const LogRow> rows) {
  if (rows.empty() || !database_) return;
  auto& connection = database_->connection;
  const auto failed = [&](std::string_view step) {
    AppLog::logError(AppLog::store(), "insert: {}, dropped {} rows: {}", step, rows.size(),
                     connection.errorText());
  };
  if (!prepareInserts(*database_, ftsAvailable_)) return failed("statement unavailable");
  Transaction transaction(connection);
  if (!transaction.began()) return failed("BEGIN failed");
  const auto write = [this](const LogRow& row) { return writeRow(*database_, row); };
  if (!std::ranges::all_of(rows, write) || !transaction.commit()) return failed("write failed");
  insertedRows_ += static_cast<std::int64_t>(rows.size());
}

void EventStore::clear() {
  if (!database_)
    return AppLog::logError(AppLog::store(), "clear: DELETE failed: no database handle");
  auto& connection = database_->connection;
  if (!connection.execute("DELETE FROM events;")) {
    AppLog::logError(AppLog::store(), "clear: DELETE failed: {}", connection.errorText());
  }
  if (ftsAvailable_) {
    connection.execute("INSERT INTO events_fts(events_fts) VALUES('delete-all');");
  }
}

std::optional<std::int64_t> EventStore::trimOldest(std::int64_t toUsedBytes, std::int64_t chunk) {
  // SQLite takes a negative LIMIT for no limit.
  if (chunk < 1 || chunk > std::numeric_limits<std::int32_t>::max()) return std::nullopt;
  if (!database_ || toUsedBytes < 1 || usedBytes() < toUsedBytes) return std::nullopt;
  if (deleteOldest(database_->connection, static_cast<std::int32_t>(chunk), ftsAvailable_) == 0) {
    return std::nullopt;
  }
  return minSeq();
}

std::int64_t EventStore::usedBytes() {
  const auto pages = scalar(database_.get(), "PRAGMA page_count");
  const auto freePages = scalar(database_.get(), "PRAGMA freelist_count");
  // The file's header states the number of free pages, and SQLite does not check it.
  const auto usedPages = pages - std::clamp<std::int64_t>(freePages, 0, pages);
  return usedPages * scalar(database_.get(), "PRAGMA page_size");
}

}  // namespace runeflow
