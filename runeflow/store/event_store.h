// One connection to one SQLite file of log records.
//
// Several connections to the same file are normal: the host opens one with `create` true, which
// lays down the schema, and reads through it; a capture opens its own and writes. They meet in
// SQLite's WAL journal, with a busy timeout of 5 s. Keep reads short: a reader that never pauses
// lets the WAL grow.
//
// The store owns its connection. One object serves one thread at a time and takes no lock. Writes
// swallow failures: they log them (AppLog, category "store") and go on; a batch or a chunk that
// fails leaves the database as it was. Reads degrade to 0 or an empty list without a log line. A
// closed, inert or moved-from store changes and finds nothing.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "runeflow/model/log_row.h"
#include "runeflow/model/source_descriptor.h"
#include "runeflow/query/log_query.h"
#include "runeflow/store/sqlite_p.h"

namespace runeflow {

struct FetchedRow {
  std::int64_t seq;
  LogRow row;
  bool operator==(const FetchedRow&) const = default;
};

struct ValueCount {
  std::string value;
  std::int64_t count;
  bool operator==(const ValueCount&) const = default;
};

// What a database file says of its schema.
struct StoreInfo {
  bool isEmpty = false;              // there is no table at all
  std::string error;                 // why `events` cannot be read, in SQLite's words; else empty
  bool hasEvents = false;            // the `events` table is there with its columns
  bool hasFullText = false;          // so is its full-text index
  std::vector<std::string> indexes;  // names of the indexes of `events`, in order of creation
};

class EventStore {
 public:
  // Opens the file at `path`; with `create` it is made if missing and the schema is laid down (what
  // is there already stays as it is). Absent when the file cannot be opened. An invalid descriptor
  // is logged and used all the same. SQLite looks into the file only when it is first used, so a
  // file that is no database opens, and then fails every write and read.
  static std::optional<EventStore> open(const std::string& path, bool create,
                                        SourceDescriptor descriptor);

  // Looks into the file at `path`, which it neither makes nor changes, as opening it as a store
  // may.
  static StoreInfo inspect(const std::string& path);

  // A store without a connection.
  static EventStore inert(SourceDescriptor descriptor);

  // Releases the connection, as destruction does. May be called again.
  void close();

  const SourceDescriptor& descriptor() const { return descriptor_; }

  // What the SQLite library offers this connection. Without FTS5 full-text terms of a query become
  // substring scans of the message, without JSON context conditions become substring scans of
  // `ctx`.
  bool ftsAvailable() const { return ftsAvailable_; }
  bool jsonAvailable() const { return jsonAvailable_; }

  // Appends the rows in one transaction: all of them or, after a logged failure, none. A timestamp
  // that has no count of microseconds is clamped to the nearest that has (NaN to 1970); the first
  // time a store does so is logged.
  void insert(std::span<const LogRow> rows);

  // How many rows `insert` has committed through this object.
  std::int64_t insertedRows() const { return insertedRows_; }

  // Deletes every row; the next one gets seq 1. The full-text index is emptied even when the rows,
  // after a logged failure, stay.
  void clear();

  // Deletes the `chunk` oldest rows if the used bytes have reached `toUsedBytes`, and gives the
  // smallest remaining seq (0 when none remains). Absent when nothing was deleted, which is also
  // the answer to a cap below 1 and to a `chunk` outside 1 to 2^31 - 1. One call deletes one chunk,
  // however large the excess.
  std::optional<std::int64_t> trimOldest(std::int64_t toUsedBytes, std::int64_t chunk);

  std::int64_t minSeq();  // 0 in an empty store
  std::int64_t maxSeq();
  std::int64_t count();
  std::int64_t countMatching(const LogQuery& query);

  // Every matching seq greater than `after`, ascending.
  std::vector<std::int64_t> matchingSeqs(const LogQuery& query, std::int64_t after);

  // The detail lines of SQLite's plan for the statement of matchingSeqs.
  std::vector<std::string> matchingSeqsQueryPlan(const LogQuery& query, std::int64_t after);

  // The records with a seq from `first` to `last`, both included, ascending.
  std::vector<FetchedRow> fetchRange(std::int64_t first, std::int64_t last);

  // The stored records among `seqs`, ascending by seq, each once. Empty when there are more numbers
  // than SQLite takes parameters.
  std::vector<FetchedRow> fetch(std::span<const std::int64_t> seqs);

  // Distinct non-empty values of a slot column, most frequent first, equal counts in byte order;
  // any other column gives none. `limit` must fit 32 bits; a negative one means no limit.
  std::vector<std::string> distinctValues(const StoreColumn& column,
                                          const std::optional<LogQuery>& matching,
                                          const std::optional<std::string>& prefix,
                                          std::int64_t limit);
  std::vector<ValueCount> distinctValuesWithCounts(const StoreColumn& column, std::int64_t limit);

  // Pages in use, in bytes; the file may be larger.
  std::int64_t usedBytes();

 private:
  struct Deletable;

  explicit EventStore(SourceDescriptor descriptor) : descriptor_(std::move(descriptor)) {}

  void probeCapabilities();
  void applySettings();
  void createSchema();

  bool prepareInserts();
  bool writeRows(std::span<const LogRow> rows);
  bool writeRow(const LogRow& row);
  std::int64_t storableMicroseconds(Timestamp timestamp);
  std::vector<Deletable> oldestRows(std::int32_t chunk);
  std::int64_t deleteOldest(std::int32_t chunk);
  bool deleteRows(const std::vector<Deletable>& rows);

  LogQuery rewrittenForCapabilities(const LogQuery& query) const;
  Statement prepareMatching(const char* prefix, const LogQuery& query, std::int64_t after);

  Connection db_;
  Statement insertStmt_;  // prepared by the first insert, kept until closing
  Statement ftsInsertStmt_;
  SourceDescriptor descriptor_;
  bool ftsAvailable_ = false;
  bool jsonAvailable_ = false;
  bool hasClampedTimestamp_ = false;
  std::int64_t insertedRows_ = 0;
};

}  // namespace runeflow
