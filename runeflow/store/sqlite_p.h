// Classes that own the objects of SQLite's C interface: a connection, a prepared statement, a
// transaction.
//
// Nothing here throws or logs. A function reports failure by its result, and
// Connection::errorText() returns SQLite's text for it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

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

  // Parameters count from 1. Text is copied, up to its first NUL character.
  void bind(int index, std::int64_t value);
  void bind(int index, const std::optional<std::string_view>& text);  // absent binds NULL
  void bind(int index, const Bind& value);
  void bindInt32(int index, std::int32_t value);
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
  std::unique_ptr<sqlite3_stmt, Finalize> handle_;
};

// Owns a connection and closes it. A default-constructed or moved-from object owns none, and every
// operation on it fails.
class Connection {
 public:
  Connection() = default;

  // Opens the file `path`, even if SQLite gives the name a special meaning (":memory:"). From its
  // first statement on, the connection waits up to 5 s for locks of other connections.
  static Connection open(const std::string& path, int flags);

  explicit operator bool() const { return handle_ != nullptr; }

  bool execute(const char* sql);
  Statement prepare(const std::string& sql);
  std::int64_t lastInsertRowId() const;

  // SQLite's primary result code and text of the last call that failed. The next call on the
  // connection may replace them.
  int errorCode() const;
  std::string errorText() const;

 private:
  struct Close {
    void operator()(sqlite3* connection) const;
  };
  std::unique_ptr<sqlite3, Close> handle_;
};

// Begins a transaction when constructed and rolls it back when destroyed, unless it was committed.
class Transaction {
 public:
  explicit Transaction(Connection& connection);
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
