// SPDX-License-Identifier: MIT

// What an EventStore keeps of SQLite while it is open: the connection, what it knows of the file,
// and the first failure that nobody has asked for yet.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "runeflow/store/event_store.h"
#include "runeflow/store/sqlite_p.h"
#include "runeflow/store/time_blocks_p.h"

namespace runeflow {

class WordFunction;

// How a database file looks from outside.
struct FileState {
  dev_t device = 0;
  ino_t inode = 0;  // 0 if there is no such file
  off_t size = 0;
  std::int64_t modified = 0;  // nanoseconds since 1970
  bool hasLog = false;        // a write-ahead log or a rollback journal lies beside it

  static FileState of(const std::string& path);

  bool isSameFile(const FileState& other) const {
    return device == other.device && inode == other.inode;
  }
  bool operator==(const FileState&) const = default;
};

class OpenDatabase {
 public:
  // Both return null if the file cannot be opened. SQLite reads it at the first statement only.
  static std::unique_ptr<OpenDatabase> forWriting(const std::string& path, bool create);

  // Never creates or changes a file. Without a write-ahead log beside it, the file is read as one
  // that nobody changes, and reading() notices if somebody does.
  static std::unique_ptr<OpenDatabase> forReading(const std::string& path);

  Statement prepare(const std::string& sql) { return connection.prepare(sql); }

  // Calls `use` at every row. A statement that cannot be prepared, and a step that fails, is noted.
  template <class Use>
  void forEachRow(Statement& statement, Use use) {
    if (!statement) return noteFailure();
    for (;;) {
      const auto step = statement.step();
      if (step == Statement::Step::done) return;
      if (step == Statement::Step::error) return noteFailure();
      use();
    }
  }

  // Returns the first column of the last row as an integer, or 0 if there is none.
  std::int64_t scalar(const std::string& sql) {
    std::int64_t value = 0;
    Statement statement = prepare(sql);
    forEachRow(statement, [&] { value = statement.integer(0); });
    return value;
  }

  // Returns the stored levels from `least` on, in order. Absent if there are more than the decoders
  // create or one is not an integer, as another program may store, and if the read fails.
  std::optional<std::vector<std::int64_t>> levelsFrom(std::int64_t least);

  // SQLite's error of the last call. The next call, also one that finalizes, may replace it.
  StoreError presentError() const;

  // Keeps an error for takeError() unless an earlier one is kept.
  void note(StoreError error);
  void noteFailure() { note(presentError()); }

  // Opens the file anew if it was read as one that nobody changes and has changed, or if the last
  // read failed and the file has changed. Returns whether it did.
  bool reopenIfChanged(bool hasFailed);

  // Returns the function that judges messages by their words, which it defines on the connection
  // first. Null without FTS5.
  WordFunction* wordFunction();

  // Returns whether the present read was asked to end.
  bool isCancelled() const { return isReading && cancellation && cancellation->load(); }

  std::string path;
  std::shared_ptr<Connection::LockWait> lockWait = std::make_shared<Connection::LockWait>(5000);
  Connection connection;
  Statement insertRow;  // prepared by the first insert, kept until the store closes
  Statement insertFullText;
  bool isForReading = false;
  FileState openedAs;
  std::optional<StoreError> failure;  // the first since takeError()
  bool isUnwatched = false;           // read without locks, as a file that nobody changes
  bool isInSnapshot = false;
  bool isReading = false;  // writes are not cancelled
  std::shared_ptr<const std::atomic<bool>> cancellation;
  bool hasLoggedClampedTimestamp = false;
  bool hasLoggedDamage = false;
  TimeBlocks timeBlocks;  // as far as a read of all times has found them

 private:
  bool openForReading();
  void setUpConnection();

  WordFunction* wordFunction_ = nullptr;  // the connection owns it
};

// While an object exists, the statements of one read see the records of one moment.
class OneMoment {
 public:
  explicit OneMoment(OpenDatabase& database)
      : connection_(database.connection),
        isOpen_(!database.isInSnapshot && connection_.execute("BEGIN;")) {}
  ~OneMoment() {
    if (isOpen_ && !connection_.execute("COMMIT;")) connection_.execute("ROLLBACK;");
  }
  OneMoment(const OneMoment&) = delete;
  OneMoment& operator=(const OneMoment&) = delete;

 private:
  Connection& connection_;
  bool isOpen_;
};

StoreFault faultOf(const Connection& connection);

// Returns the size of a file in bytes; absent if there is none.
std::optional<std::int64_t> sizeOfFile(const std::string& path);

// Runs a read. If the file was read as one that nobody changes and has changed meanwhile, opens it
// anew and repeats the read. A closed store (null) reads nothing.
template <class Read>
auto reading(OpenDatabase* database, Read read) -> decltype(read(*database)) {
  if (!database) return {};
  for (int attempt = 1;; ++attempt) {
    constexpr int kMostAttempts = 5;
    auto before = std::exchange(database->failure, std::nullopt);
    database->isReading = true;
    const bool isCancelled = database->isCancelled();
    if (isCancelled) database->note({StoreFault::cancelled, "interrupted"});
    auto result = isCancelled ? decltype(read(*database)){} : read(*database);
    database->isReading = false;
    const bool isFinal = isCancelled || attempt == kMostAttempts ||
                         !database->reopenIfChanged(database->failure.has_value());
    if (before || !isFinal) database->failure = std::move(before);
    if (isFinal) return result;
  }
}

}  // namespace runeflow
