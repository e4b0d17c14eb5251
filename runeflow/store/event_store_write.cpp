// SPDX-License-Identifier: MIT
#include <algorithm>
#include <array>
#include <cmath>
#include <expected>
#include <limits>
#include <utility>

#include "runeflow/model/json_text_p.h"
#include "runeflow/platform/app_log_p.h"
#include "runeflow/store/event_store.h"
#include "runeflow/store/full_text_merging_p.h"
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
bool prepareInserts(OpenDatabase& db, bool ftsAvailable) {
  if (!db.insertRow) db.insertRow = db.prepare(kInsertRow);
  if (ftsAvailable && !db.insertFullText) db.insertFullText = db.prepare(kInsertFullText);
  return static_cast<bool>(db.insertRow);
}

std::int64_t storableMicroseconds(OpenDatabase& db, Timestamp timestamp) {
  if (const auto microseconds = microsecondsSinceEpoch(timestamp)) return *microseconds;
  const double seconds = timestamp.time_since_epoch().count();
  if (!std::exchange(db.hasLoggedClampedTimestamp, true)) {
    AppLog::logError(AppLog::store(),
                     "insert: a timestamp of {} s cannot be stored and was clamped", seconds);
  }
  if (std::isnan(seconds)) return 0;
  constexpr auto kFarthest = std::numeric_limits<std::int64_t>::max();
  return seconds > 0 ? kFarthest : -kFarthest;
}

// An estimate on the safe side: SQLite adds a few bytes for each column, JSON escapes take up to
// six bytes for one.
std::int64_t storedSize(const LogRow& row) {
  constexpr std::size_t kOverhead = 1024;
  constexpr std::size_t kLongestEscape = 6;
  std::size_t size = kOverhead + row.message().size();
  for (const auto& slot : row.slots()) size += slot ? slot->size() : 0;
  if (!row.ctx()) return static_cast<std::int64_t>(size);
  for (const auto& [key, value] : *row.ctx()) size += kLongestEscape * (key.size() + value.size());
  return static_cast<std::int64_t>(size);
}

// Statements are reset before use, not after, because a failed batch leaves them where they were.
bool writeRow(OpenDatabase& db, const LogRow& row) {
  auto& insertRow = db.insertRow;
  insertRow.reset();
  insertRow.bind(1, storableMicroseconds(db, row.timestamp()));
  insertRow.bind(2, rawValue(row.level()));
  for (int slot = 0; slot < static_cast<int>(LogRow::slotCount); ++slot) {
    insertRow.bindInPlace(kFirstSlotParameter + slot, row.slot(slot));
  }
  insertRow.bindInPlace(kMessageParameter, row.message());
  bindContext(insertRow, row.ctx());
  if (!insertRow.stepsToEnd()) return false;

  auto& insertFullText = db.insertFullText;
  if (!insertFullText) return true;
  insertFullText.reset();
  insertFullText.bind(1, db.connection.lastInsertRowId());
  insertFullText.bindInPlace(2, row.message());
  return insertFullText.stepsToEnd();
}

// Writes the rows and returns how many it left out. Absent if a write failed.
std::optional<std::int64_t> writeRows(OpenDatabase& db, std::span<const LogRow> rows) {
  const auto largest = db.connection.largestRecord();
  std::int64_t leftOut = 0;
  for (const auto& row : rows) {
    if (const auto size = storedSize(row); size > largest) {
      AppLog::logError(AppLog::store(), "insert: dropped a record of {} bytes; SQLite takes {}",
                       size, largest);
      ++leftOut;
    } else if (!writeRow(db, row)) {
      return std::nullopt;
    }
  }
  return leftOut;
}

struct TrimLimits {
  std::int64_t records;
  std::int64_t messageBytes = std::numeric_limits<std::int64_t>::max();
  bool keepsNewest = false;
};

struct Trimmed {
  std::int64_t count = 0;
  std::int64_t lastSeq = 0;
};

// Deletes the entries of the oldest rows from the full-text index. The index has no content of its
// own: to delete an entry, it must be given the message that it indexed. The error is read before
// the statements are finalized, because finalizing replaces it.
std::expected<Trimmed, StoreError> deleteFromIndex(OpenDatabase& db, const TrimLimits& limits,
                                                   bool ftsAvailable) {
  Statement oldest = db.prepare("SELECT seq, message FROM events ORDER BY seq LIMIT ?");
  if (!oldest) return std::unexpected(db.presentError());
  oldest.bind(1, limits.records);
  Statement remove;
  if (ftsAvailable) {
    remove =
        db.prepare("INSERT INTO events_fts(events_fts, rowid, message) VALUES('delete', ?, ?)");
    if (!remove) return std::unexpected(db.presentError());
  }
  const auto newest = limits.keepsNewest ? db.scalar("SELECT max(seq) FROM events")
                                         : std::numeric_limits<std::int64_t>::max();
  Trimmed trimmed;
  std::int64_t bytes = 0;
  while (bytes < limits.messageBytes) {
    const auto step = oldest.step();
    if (step == Statement::Step::error) return std::unexpected(db.presentError());
    if (step == Statement::Step::done || oldest.integer(0) >= newest) break;
    std::array<std::optional<std::string_view>, 1> message;
    oldest.readTexts(1, message);
    if (remove) {
      remove.reset();
      remove.bind(1, oldest.integer(0));
      remove.bind(2, message[0]);
      if (!remove.stepsToEnd()) return std::unexpected(db.presentError());
    }
    bytes += static_cast<std::int64_t>(message[0].value_or("").size());
    trimmed = {trimmed.count + 1, oldest.integer(0)};
  }
  return trimmed;
}

bool deleteUpTo(OpenDatabase& db, std::int64_t seq) {
  Statement remove = db.prepare("DELETE FROM events WHERE seq <= ?");
  if (!remove) return false;
  remove.bind(1, seq);
  return remove.stepsToEnd();
}

std::int64_t usedBytesOf(OpenDatabase& db) {
  const auto pages = db.scalar("PRAGMA page_count");
  const auto freePages = db.scalar("PRAGMA freelist_count");
  // The header of the file states the number of free pages, and SQLite does not check it.
  const auto usedPages = pages - std::clamp<std::int64_t>(freePages, 0, pages);
  return usedPages * db.scalar("PRAGMA page_size");
}

std::int64_t failTrim(OpenDatabase& db, const char* step, StoreError error) {
  AppLog::logError(AppLog::store(), "trim: {}: {}", step, error.text);
  if (error.fault == StoreFault::damaged && !std::exchange(db.hasLoggedDamage, true)) {
    AppLog::logError(AppLog::store(),
                     "trim: the full-text index is damaged; rebuild it with: runeflow check "
                     "--repair {}",
                     db.path);
  }
  db.note(std::move(error));
  return 0;
}

// Deletes the oldest rows within `limits` if the used bytes have reached `toUsedBytes`, and returns
// their number. Other connections may trim or clear at the same time, so the rows are read within
// the write transaction that deletes them.
std::int64_t trim(OpenDatabase& db, std::int64_t toUsedBytes, const TrimLimits& limits,
                  bool ftsAvailable) {
  if (toUsedBytes < 1 || usedBytesOf(db) < toUsedBytes) return 0;
  Transaction transaction(db.connection, "BEGIN IMMEDIATE;");
  if (!transaction.began()) return failTrim(db, "BEGIN failed", db.presentError());
  if (usedBytesOf(db) < toUsedBytes) return 0;  // trimmed by another connection
  if (ftsAvailable) setMerging(db.connection, kUsualMerging);
  const auto trimmed = deleteFromIndex(db, limits, ftsAvailable);
  if (!trimmed) return failTrim(db, "delete failed, rolling back", trimmed.error());
  if (trimmed->count == 0) return 0;
  if (deleteUpTo(db, trimmed->lastSeq) && transaction.commit()) return trimmed->count;
  return failTrim(db, "delete failed, rolling back", db.presentError());
}

}  // namespace

void EventStore::insert(std::span<const LogRow> rows) {
  if (rows.empty() || !database_) return;
  auto& connection = database_->connection;
  const auto failed = [&](std::string_view step) {
    database_->noteFailure();
    AppLog::logError(AppLog::store(), "insert: {}, dropped {} rows: {}", step, rows.size(),
                     connection.errorText());
  };
  if (!prepareInserts(*database_, ftsAvailable_)) return failed("statement unavailable");
  Transaction transaction(connection);
  if (!transaction.began()) return failed("BEGIN failed");
  const auto leftOut = writeRows(*database_, rows);
  if (!leftOut || !transaction.commit()) {
    failed("write failed");
    // A statement that met a lock stays active. It would hold its old view of the database, and no
    // later transaction of this connection could write.
    for (auto* kept : {&database_->insertRow, &database_->insertFullText}) {
      if (*kept) kept->reset();
    }
    return;
  }
  insertedRows_ += static_cast<std::int64_t>(rows.size()) - *leftOut;
}

void EventStore::clear() {
  const auto failed = [&](const std::string& text) {
    AppLog::logError(AppLog::store(), "clear: DELETE failed: {}", text);
  };
  if (!database_) return failed("no database handle");
  auto& connection = database_->connection;
  const auto note = [&] {
    database_->noteFailure();
    failed(connection.errorText());
  };
  // Without one transaction for both statements, a batch that is stored between them would never be
  // found, and index entries without rows would be found in later rows.
  Transaction transaction(connection, "BEGIN IMMEDIATE;");
  if (!transaction.began()) return note();
  const bool isDeleted = connection.execute("DELETE FROM events;");
  if (!isDeleted) note();
  // A file that was made by an SQLite without FTS5 has no index, and the statement does not exist.
  Statement deleteAll;
  if (ftsAvailable_) {
    deleteAll = database_->prepare("INSERT INTO events_fts(events_fts) VALUES('delete-all')");
  }
  if (deleteAll && !deleteAll.stepsToEnd()) return note();  // rolls back the deletion of the rows
  // If the DELETE found the disk full, SQLite has rolled back, and the failure is noted already.
  if (!transaction.commit() && isDeleted) note();
}

std::optional<std::int64_t> EventStore::trimOldest(std::int64_t toUsedBytes, std::int64_t chunk) {
  // SQLite treats a negative LIMIT as no limit.
  if (chunk < 1 || chunk > std::numeric_limits<std::int32_t>::max()) return std::nullopt;
  if (!database_ || trim(*database_, toUsedBytes, {chunk}, ftsAvailable_) == 0) return std::nullopt;
  return minSeq();
}

std::int64_t EventStore::trimWithin(std::int64_t toUsedBytes, std::int64_t mostRecords,
                                    std::int64_t mostMessageBytes) {
  if (!database_ || mostRecords < 1) return 0;
  return trim(*database_, toUsedBytes, {mostRecords, mostMessageBytes, true}, ftsAvailable_);
}

std::int64_t EventStore::usedBytes() {
  return reading(database_.get(), usedBytesOf);
}

std::int64_t EventStore::logBytes() const {
  return database_ ? sizeOfFile(database_->path + "-wal").value_or(0) : 0;
}

bool EventStore::emptyLog(std::chrono::milliseconds wait) {
  if (!database_) return false;
  const Connection::LockWait limit = wait.count();
  database_->connection.waitForLocks(limit);
  const bool isEmpty = database_->connection.emptyLog();
  database_->connection.waitForLocks(*database_->lockWait);
  return isEmpty;
}

StoreCheck EventStore::check() {
  StoreCheck found;
  if (!database_) return found;
  Statement faults = database_->prepare("PRAGMA integrity_check(100)");
  database_->forEachRow(faults, [&] {
    auto text = faults.optionalText(0).value_or("");
    if (text != "ok") found.faults.push_back(std::move(text));
  });
  auto& connection = database_->connection;
  Transaction transaction(connection);  // rolled back: the check is a command that writes nothing
  if (!connection.prepare(kInsertFullText)) return found;
  found.isFullTextChecked = true;
  if (!connection.execute(
          "INSERT INTO events_fts(events_fts, rank) VALUES('integrity-check', 1);")) {
    found.isFullTextChecked = faultOf(connection) == StoreFault::damaged;
    if (found.isFullTextChecked) {
      found.fullTextFault = connection.errorText();
    } else if (faultOf(connection) !=
               StoreFault::readOnly) {  // a store for reading cannot check it
      database_->noteFailure();
    }
  }
  return found;
}

bool EventStore::rebuildFullText() {
  if (!database_) return false;
  if (database_->connection.execute("INSERT INTO events_fts(events_fts) VALUES('rebuild');")) {
    return true;
  }
  database_->noteFailure();
  return false;
}

}  // namespace runeflow
