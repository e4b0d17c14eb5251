// SPDX-License-Identifier: MIT

// Classes that own the objects of SQLite's C interface: a connection, a prepared statement, a
// transaction.
//
// Nothing here throws or logs. A function reports failure by its result, and
// Connection::errorText() returns SQLite's text for it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

struct fts5_api;
struct sqlite3;
struct sqlite3_stmt;

namespace runeflow {

class Bind;

// Owns a prepared statement and finalizes it. An object owns no statement if it is
// default-constructed or moved-from, or if its SQL could not be prepared. Such an object converts
// to false, and the caller must not use any other member of it.
class Statement {
 public:
  enum class Step { row, done, error };

  Statement() = default;

  explicit operator bool() const { return handle_ != nullptr; }

  // Parameters count from 1. Text is copied, up to its first NUL character. A value that SQLite
  // cannot bind makes the next step fail.
  void bind(int index, std::int64_t value);
  void bind(int index, const std::optional<std::string_view>& text);  // absent binds NULL
  void bind(int index, const Bind& value);
  // Does not copy the text, which must stay until the next step has ended. For a statement that
  // runs often: SQLite allocates each copy.
  void bindInPlace(int index, const std::optional<std::string_view>& text);
  void bindNull(int index);

  Step step();
  bool stepsToRow() { return step() == Step::row; }
  bool stepsToEnd() { return step() == Step::done; }
  void reset();

  // Columns count from 0; NULL reads as 0.
  std::int64_t integer(int column) const;
  std::optional<std::string> optionalText(int column) const;
  // Reads the texts of consecutive columns, NULL as absent. The views are valid until the next
  // step.
  void readTexts(int column, std::span<std::optional<std::string_view>> texts) const;

 private:
  friend class Connection;
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const;
  };
  explicit Statement(sqlite3_stmt* handle) : handle_(handle) {}
  void noteBind(int result);

  std::unique_ptr<sqlite3_stmt, Finalize> handle_;
  bool isBound_ = true;  // no bind has failed since the last reset
};

// Owns a connection and closes it. A default-constructed or moved-from object owns none, and every
// operation on it fails.
class Connection {
 public:
  Connection() = default;

  // The longest wait for locks of other connections, in milliseconds. It may be changed from any
  // thread, also while the connection waits.
  using LockWait = std::atomic<std::int64_t>;

  // `name` is a file name as SQLite reads it, or with SQLITE_OPEN_URI among the flags a URI.
  static Connection open(const std::string& name, int flags);

  // Until this is called the connection does not wait. `wait` must outlive the connection.
  void waitForLocks(const LockWait& wait);

  // Returns whether the present call should end early. Any thread may change the answer.
  using IsInterrupted = bool (*)(const void* context);
  // Running statements and waits for locks call `isInterrupted` from time to time. `context` must
  // outlive the connection.
  void interruptIf(IsInterrupted isInterrupted, const void* context);

  explicit operator bool() const { return handle_ != nullptr; }

  bool execute(const char* sql);
  Statement prepare(const std::string& sql);
  std::int64_t lastInsertRowId() const;
  std::int64_t largestRecord() const;  // bytes that SQLite stores in one row at most

  // Moves the write-ahead log into the database and empties it. Fails if others use the log.
  bool emptyLog();

  // For code that calls SQLite itself.
  sqlite3* handle() { return handle_.get(); }

  // The functions of FTS5, valid while the connection is open; null without FTS5.
  fts5_api* fullTextInterface();

  // SQLite's primary result code and text of the last call that failed. The next call on the
  // connection may replace them.
  int errorCode() const;
  std::string errorText() const;

 private:
  struct Close {
    void operator()(sqlite3* connection) const;
  };
  // What SQLite's callbacks read. It does not move with the connection.
  struct Patience {
    const LockWait* longest = nullptr;
    std::chrono::steady_clock::time_point since;  // when the present wait began
    IsInterrupted isInterrupted = [](const void*) { return false; };
    const void* context = nullptr;
  };
  std::unique_ptr<Patience> patience_ = std::make_unique<Patience>();
  std::unique_ptr<sqlite3, Close> handle_;
};

// Begins a transaction when constructed and rolls it back when destroyed, unless it was committed.
class Transaction {
 public:
  // BEGIN takes the write lock with the first write, BEGIN IMMEDIATE at once.
  explicit Transaction(Connection& connection, const char* begin = "BEGIN;");
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  bool began() const { return isOpen_; }
  bool commit();

 private:
  Connection& connection_;
  bool isOpen_;
};

}  // namespace runeflow
