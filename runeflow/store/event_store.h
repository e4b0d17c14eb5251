/// \file
/// The database of log records: one SQLite file, and one connection to it.
///
///     auto store = EventStore::open("phone.db", true, SourceDescriptor::logcat());
///     store->insert(rows);
///     const auto query = QueryParser::parse("level:error", store->descriptor(), false);
///     for (const auto& [seq, row] : store->fetch(store->matchingSeqs(query, 0))) { … }
///
/// The number of a record is its `seq`, the rowid of its row. It is a positive integer that grows
/// in the order of storing. After clear(), or after trimOldest() has deleted all records, the next
/// record gets 1 again.
///
/// Which function to use for which purpose:
///
/// - To show all records page by page, call minSeq() and maxSeq() for the length of the list and
///   fetchRange() for the visible part.
/// - To show a filtered list, call matchingSeqs(query, 0) once for the list and fetch() for the
///   visible part.
/// - To find new records, call matchingSeqs(query, after) with the largest known seq.
/// - To show only a number of records, call count() or countMatching().
/// - To suggest values of a field, call distinctValues() or distinctValuesWithCounts().
/// - To find out whether a file is a store at all, call inspect().
///
/// Several connections usually share one file. A host (the program that uses the library) opens a
/// connection with `create` true, which creates the tables, and reads through it. A capture opens
/// its own connection and writes. They can work at the same time, because the database uses
/// SQLite's write-ahead log. Keep reads short: SQLite cannot reuse the space of the log while a
/// read runs, and the log grows.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "runeflow/model/log_row.h"
#include "runeflow/model/source_descriptor.h"
#include "runeflow/query/log_query.h"

namespace runeflow {

struct OpenDatabase;

/// A stored record and its number.
struct FetchedRow {
  std::int64_t seq;  ///< The record's number, its rowid in `events`.
  LogRow row;        ///< The record.
  bool operator==(const FetchedRow&) const = default;
};

/// A value of a column, and how many records hold it.
struct ValueCount {
  std::string value;   ///< The value, never empty.
  std::int64_t count;  ///< The number of records.
  bool operator==(const ValueCount&) const = default;
};

/// Why a file cannot be read as a store.
enum class StoreFault {
  none,          ///< It can be read.
  noEvents,      ///< The database has no table `events`, or the table lacks a column of a store.
  notADatabase,  ///< The file is not an SQLite database.
  damaged,       ///< SQLite reports that the database is malformed.
  cannotOpen,    ///< The file cannot be opened: it does not exist, or permission is missing.
  readOnly,  ///< To read, SQLite must write `-wal` and `-shm` files beside it and is not permitted.
  locked,    ///< Another connection held a lock for longer than the busy timeout of 5 s.
  other      ///< Any other failure; `StoreInfo::faultText` describes it.
};

/// The description of a database file that EventStore::inspect() returns.
struct StoreInfo {
  bool isEmpty = false;                 ///< The database has no table at all.
  StoreFault fault = StoreFault::none;  ///< Why the records cannot be read.
  std::string faultText;                ///< SQLite's text for `fault`; empty for `none`.
  bool hasFullText = false;             ///< The database has a full-text index.
  std::vector<std::string> indexes;     ///< Names of the indexes of `events`, in order of creation.

  /// Returns true if `indexes` are exactly those that a store with `descriptor` creates, in any
  /// order.
  bool hasIndexesOf(const SourceDescriptor& descriptor) const;
  std::vector<StoreColumn> indexedColumns;  ///< Always empty; inspect() fills only `indexes`.
};

/// One connection to one database file.
///
/// The store owns its connection. Only one thread at a time may use an object. A connection waits
/// up to 5 s for locks of other connections.
///
/// If a write fails, it logs the failure (AppLog, category "store") and returns no error. An insert
/// or trim that fails leaves the database unchanged. If a read fails, it returns what it has read
/// until then, usually 0 or an empty list, and logs nothing. An object without a connection (inert,
/// closed or moved-from) stores and finds nothing.
class EventStore {
 public:
  /// Opens the file at `path`. If `create` is true, creates the file if it does not exist, and the
  /// tables and indexes that it lacks. In this case an invalid `descriptor` (see
  /// SourceDescriptor::validationError()) is logged, but used.
  ///
  /// Returns nothing if the file cannot be opened. The function does not check the contents of the
  /// file and does not report tables that it cannot create. It can therefore return a store for a
  /// file that is not a database; all writes and reads of that store fail. inspect() finds out.
  static std::optional<EventStore> open(const std::string& path, bool create,
                                        SourceDescriptor descriptor);

  /// Describes the file at `path` without creating or changing it.
  static StoreInfo inspect(const std::string& path);

  /// Returns a store without a connection.
  static EventStore inert(SourceDescriptor descriptor);

  /// A moved-from store is inert.
  EventStore(EventStore&&) noexcept;
  /// Closes the present connection first.
  EventStore& operator=(EventStore&&) noexcept;
  ~EventStore();

  /// Closes the connection, as destruction does. May be called again.
  void close();

  /// Returns the descriptor that the store was opened with.
  const SourceDescriptor& descriptor() const { return descriptor_; }

  /// Returns true if SQLite has FTS5. If not, the full-text terms of a query become substring scans
  /// of the message.
  bool ftsAvailable() const { return ftsAvailable_; }
  /// Returns true if SQLite has the JSON functions. If not, the context conditions of a query
  /// become substring scans of the `ctx` column.
  bool jsonAvailable() const { return jsonAvailable_; }

  /// Appends `rows` in one transaction. If the transaction fails, stores none of them and logs the
  /// failure. A timestamp whose microseconds do not fit 64 bits is stored as the nearest number
  /// that fits, and NaN as 1970-01-01T00:00:00Z. The store logs the first such timestamp.
  void insert(std::span<const LogRow> rows);

  /// Returns the number of rows that insert() has committed through this object.
  std::int64_t insertedRows() const { return insertedRows_; }

  /// Deletes all records. The next record gets seq 1. If the rows cannot be deleted, logs the
  /// failure, but empties the full-text index nevertheless.
  void clear();

  /// Deletes the `chunk` oldest records if usedBytes() is at least `toUsedBytes`. Deletes only one
  /// chunk per call, even if usedBytes() is still above `toUsedBytes` afterwards.
  ///
  /// Returns the smallest remaining seq, or 0 if no record remains. Returns nothing if no record
  /// was deleted. This is also the result if `toUsedBytes` is below 1 or `chunk` is not in the
  /// range 1 to 2^31 - 1.
  std::optional<std::int64_t> trimOldest(std::int64_t toUsedBytes, std::int64_t chunk);

  /// Returns the smallest seq, or 0 if the store is empty.
  std::int64_t minSeq();
  /// Returns the largest seq, or 0 if the store is empty.
  std::int64_t maxSeq();
  /// Returns the number of records.
  std::int64_t count();
  /// Returns the number of records that match `query`.
  std::int64_t countMatching(const LogQuery& query);

  /// Returns the seqs of all records that match `query` and whose seq is greater than `after`, in
  /// ascending order.
  std::vector<std::int64_t> matchingSeqs(const LogQuery& query, std::int64_t after);

  /// Returns the plan that EXPLAIN QUERY PLAN gives for the statement of matchingSeqs(), as the
  /// texts of its column `detail`. The list is empty if SQLite refuses the statement.
  std::vector<std::string> matchingSeqsQueryPlan(const LogQuery& query, std::int64_t after);

  /// Returns the records with a seq from `first` to `last`, both included, in ascending order.
  std::vector<FetchedRow> fetchRange(std::int64_t first, std::int64_t last);

  /// Returns the stored records whose seq is one of `seqs`, in ascending order and each once. The
  /// list is empty if `seqs` has more elements than SQLite allows parameters (250,000 on Debian).
  std::vector<FetchedRow> fetch(std::span<const std::int64_t> seqs);

  /// Returns the distinct non-empty values of `column`, which must be a slot; other columns give an
  /// empty list. `matching`, if present, restricts the records that are examined. `prefix`, if
  /// present, restricts the values to those that begin with it; ASCII case is ignored.
  ///
  /// The most frequent value comes first. Values with equal counts are in byte order. The list has
  /// at most `limit` values; a negative limit means no limit. A `limit` that does not fit 32 bits
  /// counts as the nearest number that does.
  std::vector<std::string> distinctValues(const StoreColumn& column,
                                          const std::optional<LogQuery>& matching,
                                          const std::optional<std::string>& prefix,
                                          std::int64_t limit);
  /// Returns the distinct values of all records, like distinctValues(), and the number of records
  /// with each value.
  std::vector<ValueCount> distinctValuesWithCounts(const StoreColumn& column, std::int64_t limit);

  /// Returns the size in bytes of all pages in use, by tables and by indexes. The file may be
  /// larger.
  std::int64_t usedBytes();

 private:
  explicit EventStore(SourceDescriptor descriptor);

  void createSchema();
  LogQuery rewrittenForCapabilities(const LogQuery& query) const;

  std::unique_ptr<OpenDatabase> database_;  // null in an inert, closed or moved-from store
  SourceDescriptor descriptor_;
  bool ftsAvailable_ = false;
  bool jsonAvailable_ = false;
  std::int64_t insertedRows_ = 0;
};

}  // namespace runeflow
