#include <cmath>
#include <limits>

#include "runeflow/model/json_text_p.h"
#include "runeflow/platform/app_log_p.h"
#include "runeflow/store/event_store.h"

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

}  // namespace

void EventStore::insert(std::span<const LogRow> rows) {
  if (rows.empty() || !db_) return;
  if (!prepareInserts()) {
    AppLog::logError(AppLog::store(), "insert: statement unavailable, dropped {} rows: {}",
                     rows.size(), db_.errorText());
    return;
  }
  Transaction transaction(db_);
  if (!transaction.began()) {
    AppLog::logError(AppLog::store(), "insert: BEGIN failed, dropped {} rows: {}", rows.size(),
                     db_.errorText());
    return;
  }
  if (writeRows(rows) && transaction.commit()) {
    insertedRows_ += static_cast<std::int64_t>(rows.size());
    return;
  }
  AppLog::logError(AppLog::store(), "insert: write failed, dropped {} rows: {}", rows.size(),
                   db_.errorText());
}

// Without its full-text statement (the file was made by an SQLite without FTS5) rows are stored all
// the same, and not indexed.
bool EventStore::prepareInserts() {
  if (!insertStmt_) insertStmt_ = db_.prepare(kInsertRow);
  if (ftsAvailable_ && !ftsInsertStmt_) ftsInsertStmt_ = db_.prepare(kInsertFullText);
  return static_cast<bool>(insertStmt_);
}

bool EventStore::writeRows(std::span<const LogRow> rows) {
  for (const auto& row : rows) {
    if (!writeRow(row)) return false;
  }
  return true;
}

// Statements are reset before use, not after: one that a failed batch left behind is ready again.
bool EventStore::writeRow(const LogRow& row) {
  insertStmt_.reset();
  insertStmt_.bind(1, storableMicroseconds(row.timestamp()));
  insertStmt_.bind(2, rawValue(row.level()));
  for (int slot = 0; slot < static_cast<int>(LogRow::slotCount); ++slot) {
    insertStmt_.bind(kFirstSlotParameter + slot, row.slot(slot));
  }
  insertStmt_.bind(kMessageParameter, row.message());
  bindContext(insertStmt_, row.ctx());
  if (!insertStmt_.stepsToEnd()) return false;

  if (!ftsInsertStmt_) return true;
  ftsInsertStmt_.reset();
  ftsInsertStmt_.bind(1, db_.lastInsertRowId());
  ftsInsertStmt_.bind(2, row.message());
  return ftsInsertStmt_.stepsToEnd();
}

std::int64_t EventStore::storableMicroseconds(Timestamp timestamp) {
  if (const auto microseconds = microsecondsSinceEpoch(timestamp)) return *microseconds;
  const double seconds = timestamp.time_since_epoch().count();
  if (!hasClampedTimestamp_) {
    hasClampedTimestamp_ = true;
    AppLog::logError(AppLog::store(),
                     "insert: a timestamp of {} s cannot be stored and was clamped", seconds);
  }
  if (std::isnan(seconds)) return 0;
  constexpr auto kFarthest = std::numeric_limits<std::int64_t>::max();
  return seconds > 0 ? kFarthest : -kFarthest;
}

void EventStore::clear() {
  if (!db_.execute("DELETE FROM events;")) {
    AppLog::logError(AppLog::store(), "clear: DELETE failed: {}", db_.errorText());
  }
  if (ftsAvailable_) db_.execute("INSERT INTO events_fts(events_fts) VALUES('delete-all');");
}

// One row on its way out: an external-content full-text index forgets a row only when it is told
// the message that it indexed.
struct EventStore::Deletable {
  std::int64_t seq;
  std::optional<std::string> message;
};

std::optional<std::int64_t> EventStore::trimOldest(std::int64_t toUsedBytes, std::int64_t chunk) {
  // To SQLite a negative LIMIT means no limit.
  if (chunk < 1 || chunk > std::numeric_limits<std::int32_t>::max()) return std::nullopt;
  if (!db_ || toUsedBytes < 1) return std::nullopt;
  if (usedBytes() < toUsedBytes) return std::nullopt;
  if (deleteOldest(static_cast<std::int32_t>(chunk)) < 1) return std::nullopt;
  return db_.scalar("SELECT min(seq) FROM events");
}

std::int64_t EventStore::usedBytes() {
  const auto pages = db_.scalar("PRAGMA page_count");
  const auto freePages = db_.scalar("PRAGMA freelist_count");
  return (pages - freePages) * db_.scalar("PRAGMA page_size");
}

std::int64_t EventStore::deleteOldest(std::int32_t chunk) {
  const auto rows = oldestRows(chunk);
  if (rows.empty()) return 0;
  Transaction transaction(db_);
  if (!transaction.began()) {
    AppLog::logError(AppLog::store(), "trim: BEGIN failed: {}", db_.errorText());
    return 0;
  }
  if (deleteRows(rows) && transaction.commit()) return static_cast<std::int64_t>(rows.size());
  AppLog::logError(AppLog::store(), "trim: delete failed, rolling back: {}", db_.errorText());
  return 0;
}

std::vector<EventStore::Deletable> EventStore::oldestRows(std::int32_t chunk) {
  std::vector<Deletable> rows;
  Statement oldest = db_.prepare("SELECT seq, message FROM events ORDER BY seq LIMIT ?");
  if (!oldest) return rows;
  oldest.bindInt32(1, chunk);
  while (oldest.stepsToRow()) rows.push_back({oldest.integer(0), oldest.optionalText(1)});
  return rows;
}

bool EventStore::deleteRows(const std::vector<Deletable>& rows) {
  if (ftsAvailable_) {
    Statement forget =
        db_.prepare("INSERT INTO events_fts(events_fts, rowid, message) VALUES('delete', ?, ?)");
    if (!forget) return false;
    for (const auto& row : rows) {
      forget.reset();
      forget.bind(1, row.seq);
      forget.bind(2, row.message);
      if (!forget.stepsToEnd()) return false;
    }
  }
  Statement remove = db_.prepare("DELETE FROM events WHERE seq <= ?");
  if (!remove) return false;
  remove.bind(1, rows.back().seq);
  return remove.stepsToEnd();
}

}  // namespace runeflow
