// SPDX-License-Identifier: MIT
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
/// - For a list of all records that shows a page at a time, use `minSeq()` and `maxSeq()` for its
///   length and `fetchRange(first, last)` for the visible part.
/// - For a list of the records that match a query, use `newestMatching()` and `oldestMatching()` to
///   page through it in either direction, `countMatchingPerBlock()` for its length and to jump to
///   any place in it, and `fetchPreviews(seqs)` or `fetch(seqs)` for the visible part.
/// - For new records that match, call `oldestMatching(query, after, limit)`, where `after` is the
///   largest seq known.
/// - For the whole list of matches, call `matchingSeqs(query, 0)`. Its cost grows with the list.
/// - For records whose messages may be long, use `fetchPreviews()`, and `messagePiece()` for the
///   rest of a message.
/// - For a number alone, use `count()` or `countMatching(query)`.
/// - For an overview over time, use `timeSpan()` and `timeline()`, and `firstSeqAtOrAfter()` to go
///   to an instant.
/// - For completing the values of a field, use `distinctValues()` or `distinctValuesWithCounts()`;
///   `valuesInOrder()` gives no counts and reads less.
/// - To end a slow read from another thread, use `setCancellation()`.
/// - To find out whether a file is a store at all, use `inspect(path)`.
/// - To find out whether the answers are complete, call `takeError()` after the reads.
///
/// Several connections to one file are normal. A host (the program that uses the library) opens one
/// with `create` true, which creates the tables, and reads through it. A capture opens its own and
/// writes. A program that only reads uses openForReading(), which changes neither the file nor its
/// folder. SQLite's write-ahead log lets all of them work at the same time. Keep reads short: the
/// log grows while a read runs.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "runeflow/model/log_row.h"
#include "runeflow/model/source_descriptor.h"
#include "runeflow/platform/api.h"
#include "runeflow/query/log_query.h"
#include "runeflow/store/page.h"
#include "runeflow/store/timeline.h"

namespace runeflow {

class OpenDatabase;

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
  none,          ///< The file can be read.
  noEvents,      ///< The database has no table `events`, or the table lacks a column of a store.
  notADatabase,  ///< The file is not an SQLite database.
  damaged,       ///< SQLite reports that the database is malformed.
  cannotOpen,    ///< The file cannot be opened: it does not exist, or permission is missing.
  readOnly,      ///< SQLite may not write the files `-wal` and `-shm`, which the read needs.
  locked,        ///< Another connection held a lock for longer than setLockWait() allows.
  diskFull,      ///< There is no space left for the file.
  cancelled,     ///< EventStore::setCancellation() has ended the read.
  refused,       ///< SQLite refuses the statement, usually because a query is too large.
  other          ///< Anything else; SQLite's text gives the reason.
};

/// Why a read or write was cut short.
struct StoreError {
  StoreFault fault = StoreFault::other;  ///< The cause.
  std::string text;                      ///< SQLite's text for it.
  bool operator==(const StoreError&) const = default;
};

/// What EventStore::check() found.
struct StoreCheck {
  std::vector<std::string> faults;  ///< SQLite's texts for faults of the database; at most 100.
  std::string fullTextFault;        ///< Why the full-text index does not fit the records, or empty.
  bool isFullTextChecked = false;   ///< False if there is no index or the check was not possible.
};

/// The result of EventStore::inspect(): what a file is, and which schema it has.
struct RUNEFLOW_EXPORT StoreInfo {
  bool isEmpty = false;                 ///< The database has no table at all.
  StoreFault fault = StoreFault::none;  ///< Why the records cannot be read.
  std::string faultText;                ///< SQLite's text for `fault`; empty for `none`.
  bool hasFullText = false;             ///< The database has a full-text index.
  std::vector<std::string> indexes;     ///< Names of the indexes of `events`, in order of creation.

  /// Returns true if `indexes` are exactly those that a store with `descriptor` creates, in any
  /// order.
  bool hasIndexesOf(const SourceDescriptor& descriptor) const;
};

/// One connection to one database file.
///
/// The store owns its connection. Only one thread at a time may use an object. A connection waits
/// up to 5 s for locks of other connections.
///
/// A write that fails writes a line to the diagnostic log (AppLog, category "store"). A batch or
/// trim that fails leaves the database as it was. A read that fails returns what it has read until
/// then, usually 0 or an empty list, and logs nothing. takeError() returns the error of either. An
/// inert, closed or moved-from store stores and finds nothing.
class RUNEFLOW_EXPORT EventStore {
 public:
  /// Opens the file at `path`. If `create` is true, creates the file if it does not exist, and the
  /// tables and indexes that it lacks. In this case the function logs an invalid `descriptor` (see
  /// SourceDescriptor::validationError()) and uses it.
  ///
  /// Returns nothing if the file cannot be opened. The function does not check the contents of the
  /// file and does not report tables that it cannot create. It can therefore return a store for a
  /// file that is not a database; all writes and reads of that store fail. Call inspect() to find
  /// out.
  static std::optional<EventStore> open(const std::string& path, bool create,
                                        SourceDescriptor descriptor);

  /// Opens the file at `path` for reads. Neither this function nor a read creates or changes a
  /// file, and writes fail. Reads find the records of a capture that runs, begins or ends
  /// meanwhile. Returns nothing if the file cannot be opened.
  ///
  /// There is one exception: if a write-ahead log lies beside the file without its index (`-shm`),
  /// as after an incomplete copy, a read creates the index.
  static std::optional<EventStore> openForReading(const std::string& path,
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

  /// Prepares the connection for storing a long stream: 16 MiB of page cache, and a checkpoint of
  /// the write-ahead log every 4,000 pages instead of every 1,000. The indexes of a large store do
  /// not fit SQLite's usual 2 MB, and each page that leaves the cache is written once more.
  /// Also lets FTS5 merge the full-text index in fewer and larger steps: `automerge` 16 and
  /// `crisismerge` 32, which FTS5 keeps in the database until records are trimmed. If the database
  /// has other values, or if another connection is writing, they stay as they are.
  /// CaptureSession calls this for its own connection; reads gain nothing from it.
  void prepareForCapture();

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

  /// Appends `rows` in one transaction. Stores all of them or, after a failure, which it logs,
  /// none. A record larger than SQLite takes (10^9 bytes) is logged and left out. A timestamp
  /// outside the range of microseconds in 64 bits is clamped to its nearest end, and NaN to 1970;
  /// the store logs the first one.
  void insert(std::span<const LogRow> rows);

  /// Returns the number of rows that insert() has committed through this object.
  std::int64_t insertedRows() const { return insertedRows_; }

  /// Deletes every record in one transaction; the next record gets seq 1. If the transaction cannot
  /// begin, nothing changes. If deleting the rows fails, the full-text index is emptied all the
  /// same. Both failures are logged.
  void clear();

  /// Deletes the `chunk` oldest records if usedBytes() is at least `toUsedBytes`. Deletes only one
  /// chunk per call, even if usedBytes() is still above `toUsedBytes` afterwards.
  ///
  /// Returns the smallest remaining seq, or 0 if no record remains. Returns nothing if no record
  /// was deleted. This is also the result if `toUsedBytes` is below 1 or `chunk` is not in the
  /// range 1 to 2^31 - 1.
  std::optional<std::int64_t> trimOldest(std::int64_t toUsedBytes, std::int64_t chunk);

  /// Deletes the oldest records if usedBytes() is at least `toUsedBytes`. Deletes at most
  /// `mostRecords`, stops when their messages together have at least `mostMessageBytes` bytes, and
  /// never deletes the newest record. Returns the number of deleted records.
  std::int64_t trimWithin(std::int64_t toUsedBytes, std::int64_t mostRecords,
                          std::int64_t mostMessageBytes);

  /// Returns the first error of a read or write since the last call, and forgets it. Returns
  /// nothing if every read was complete and every write succeeded.
  std::optional<StoreError> takeError();

  /// Returns whether the file at the path of the store is no longer the one that was opened,
  /// because it was deleted or replaced. The store goes on using the old file.
  bool hasLostItsFile() const;

  /// Sets how long a call waits for locks of other connections, in milliseconds. The default is
  /// 5,000. Any thread may change the number, also while a call waits.
  void setLockWait(std::shared_ptr<std::atomic<std::int64_t>> milliseconds);

  /// Sets a flag that ends reads. While it is true, a running read of this store ends early, a new
  /// one returns nothing, and takeError() returns StoreFault::cancelled. Writes are not affected.
  /// Any thread may change the flag, also during a read. Null, which is the default, means no flag.
  void setCancellation(std::shared_ptr<const std::atomic<bool>> isCancelled);

  /// Returns the size in bytes of the write-ahead log beside the file, or 0 if there is none.
  std::int64_t logBytes() const;

  /// Moves the write-ahead log into the database and empties it. Waits up to `wait` for other
  /// connections, and fails if they use the log for longer.
  bool emptyLog(std::chrono::milliseconds wait);

  /// Checks the database and its full-text index. Reads the whole file, which takes a second for
  /// about 100 MB. The check of the full-text index changes nothing, but needs a store that can
  /// write. If the check fails for another reason than damage, such as a lock, takeError() returns
  /// the reason.
  StoreCheck check();

  /// Rebuilds the full-text index from the records. Returns false if that fails.
  bool rebuildFullText();

  /// While a snapshot exists, all reads of its store see the records of one moment. Destroy it
  /// soon, because the write-ahead log grows until then.
  class Snapshot {
   public:
    /// The store must outlive the snapshot, and may have only one at a time.
    explicit Snapshot(EventStore& store);
    ~Snapshot();
    Snapshot(const Snapshot&) = delete;
    Snapshot& operator=(const Snapshot&) = delete;

    /// Returns true if another program began to write to the file during the snapshot, so that the
    /// reads may come from different moments. The caller should then read again with a new
    /// snapshot. This can happen only if no other program had the file open when the snapshot
    /// began.
    bool isDisturbed() const;

   private:
    EventStore& store_;
  };

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

  /// Returns the seqs of the newest `limit` records that match `query` and whose seq is less than
  /// `below`, in ascending order. INT64_MAX as `below` means all records. The list is empty if
  /// `limit` is below 1. If matches are frequent, the cost depends on the number of seqs returned;
  /// if they are rare, it is little more than that of countMatching().
  std::vector<std::int64_t> newestMatching(const LogQuery& query, std::int64_t below,
                                           std::int64_t limit);
  /// Returns the seqs of the oldest `limit` records that match `query` and whose seq is greater
  /// than `after`, in ascending order. See newestMatching() for the limit and the cost.
  std::vector<std::int64_t> oldestMatching(const LogQuery& query, std::int64_t after,
                                           std::int64_t limit);

  /// Counts the records with a seq from `first` to `last` that match `query` in each block of
  /// `blockSize` seqs. Returns the blocks that have matches, in ascending order. The list is empty
  /// if `blockSize` is below 1. Seqs below 1 are not counted.
  std::vector<SeqBlock> countMatchingPerBlock(const LogQuery& query, std::int64_t first,
                                              std::int64_t last, std::int64_t blockSize);

  /// Returns the plan that EXPLAIN QUERY PLAN gives for the statement of matchingSeqs(), as the
  /// texts of its column `detail`. The list is empty if SQLite refuses the statement.
  std::vector<std::string> matchingSeqsQueryPlan(const LogQuery& query, std::int64_t after);

  /// Returns the records with a seq from `first` to `last`, both included, in ascending order.
  std::vector<FetchedRow> fetchRange(std::int64_t first, std::int64_t last);

  /// Returns the stored records whose seq is one of `seqs`, in ascending order and each once. The
  /// list is empty if `seqs` has more elements than SQLite allows parameters (250,000 on Debian).
  std::vector<FetchedRow> fetch(std::span<const std::int64_t> seqs);

  /// Returns the same records as fetch(), with messages cut to the first `characters` code points.
  std::vector<RecordPreview> fetchPreviews(std::span<const std::int64_t> seqs,
                                           std::int64_t characters);
  /// Returns the same records as fetchRange(), with messages cut like those of fetchPreviews().
  std::vector<RecordPreview> fetchPreviewRange(std::int64_t first, std::int64_t last,
                                               std::int64_t characters);
  /// Returns up to `characters` code points of the message of a record, beginning with code point
  /// `from`, where 0 is the first. Negative numbers count as 0. Returns nothing if there is no
  /// such record.
  std::optional<std::string> messagePiece(std::int64_t seq, std::int64_t from,
                                          std::int64_t characters);

  /// Counts the records that match `query` and whose time lies in `span`. Divides the span into
  /// `bars` bars of equal length and counts the records of each bar by level. `bars` is limited to
  /// the range 1 to 100,000.
  ///
  /// Reads the time of every record that matches. If timeSpan() of all records was called since the
  /// database last changed, it reads only the times near the boundaries of the bars, as long as
  /// these are few, and takes hardly longer than countMatching().
  Timeline timeline(const LogQuery& query, TimeSpan span, std::size_t bars);

  /// Returns the smallest span that holds the times of all records with a seq from `first` to
  /// `last`. The earliest time need not be that of the first record, because clocks jump. Returns
  /// nothing if there is no such record. No span holds the time INT64_MAX.
  ///
  /// Reads the times of these records. Of all records, the bounds of the times and the levels are
  /// kept until the database changes, in up to 4 MB and half a byte a record. The levels are not
  /// kept if there are more than 33,554,432 seqs.
  std::optional<TimeSpan> timeSpan(std::int64_t first, std::int64_t last);

  /// Returns the seq of the first record whose time is at or after `microseconds` since 1970. If
  /// the times do not grow with the seqs, the function returns one of the records that are at or
  /// after that time while the record before them is earlier. Returns 0 if the newest record is
  /// earlier. Finds the record by bisection, which reads a few records.
  std::int64_t firstSeqAtOrAfter(std::int64_t microseconds);

  /// Returns the distinct non-empty values of `column`, which must be a slot; other columns give an
  /// empty list. `matching`, if present, restricts the records that are examined. `prefix`, if
  /// present, restricts the values to those that begin with it; ASCII case is ignored.
  ///
  /// The most frequent value comes first. Values with equal counts are in byte order. The list has
  /// at most `limit` values; a negative limit means no limit.
  std::vector<std::string> distinctValues(const StoreColumn& column,
                                          const std::optional<LogQuery>& matching,
                                          const std::optional<std::string>& prefix,
                                          std::int64_t limit);
  /// Returns the distinct values of all records, like distinctValues(), and the number of records
  /// with each value.
  std::vector<ValueCount> distinctValuesWithCounts(const StoreColumn& column, std::int64_t limit);

  /// Returns the distinct values of the records that match, like distinctValues(), and the number
  /// of matching records with each value. The column may also be the level: its values are the raw
  /// levels "0" to "5", and a stored level outside this range counts as Info.
  std::vector<ValueCount> distinctValuesWithCounts(const StoreColumn& column,
                                                   const std::optional<LogQuery>& matching,
                                                   const std::optional<std::string>& prefix,
                                                   std::int64_t limit);

  /// Returns the first `limit` distinct non-empty values of `column`, a slot, that begin with
  /// `prefix`, in byte order; ASCII case is ignored. A negative limit means no limit. The cost
  /// follows the number of distinct values, not of records, if an index has the column, as those of
  /// the descriptor's indexed fields do.
  std::vector<std::string> valuesInOrder(const StoreColumn& column, const std::string& prefix,
                                         std::int64_t limit);

  /// Returns the size in bytes of all pages in use, by tables and by indexes. The file may be
  /// larger.
  std::int64_t usedBytes();

 private:
  explicit EventStore(SourceDescriptor descriptor);

  void createSchema();
  void probeCapabilities();
  LogQuery rewrittenForCapabilities(const LogQuery& query) const;

  std::unique_ptr<OpenDatabase> database_;  // null in an inert, closed or moved-from store
  SourceDescriptor descriptor_;
  bool ftsAvailable_ = false;
  bool jsonAvailable_ = false;
  std::int64_t insertedRows_ = 0;
};

}  // namespace runeflow
