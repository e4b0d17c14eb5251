// SQLite's C interface with owners: a connection, a prepared statement, a transaction.
//
// Nothing here throws or logs; failure is a false result, and the connection holds its text. Only
// the store's own sources use these types.
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

// Owns a prepared statement and finalizes it. One without a statement (default-made, moved-from, or
// not to be prepared) is false, and only that may be asked of it.
class Statement {
 public:
  enum class Step { row, done, error };

  Statement() = default;

  explicit operator bool() const { return handle_ != nullptr; }
  void finalize() { handle_.reset(); }

  // Parameters count from 1. Text is copied, up to its first NUL character.
  void bind(int index, std::int64_t value);
  void bind(int index, const std::optional<std::string_view>& text);  // absent is NULL
  void bind(int index, const Bind& value);
  void bindInt32(int index, std::int32_t value);
  void bindNull(int index);

  Step step();
  bool stepsToRow() { return step() == Step::row; }
  bool stepsToEnd() { return step() == Step::done; }
  void reset();

  // Columns count from 0; NULL reads as 0.
  std::int64_t integer(int column) const;
  std::string text(int column) const;  // NULL reads as the empty text
  std::optional<std::string> optionalText(int column) const;
  // The texts of consecutive columns, NULL as absent; valid until the next step.
  void readTexts(int column, std::span<std::optional<std::string_view>> texts) const;

 private:
  friend class Connection;
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const;
  };
  explicit Statement(sqlite3_stmt* handle) : handle_(handle) {}
  std::unique_ptr<sqlite3_stmt, Finalize> handle_;
};

// Owns a connection and closes it. Without one (default-made, moved-from, closed) every operation
// fails and errorText() says "no database handle".
class Connection {
 public:
  Connection() = default;

  // `path` names a file even where SQLite would take it for something else. From its first
  // statement on the connection waits up to 5 s for another one's lock.
  static Connection open(const std::string& path, int flags);

  explicit operator bool() const { return handle_ != nullptr; }
  void close() { handle_.reset(); }

  bool execute(const char* sql);
  Statement prepare(const std::string& sql);
  std::int64_t lastInsertRowId() const;

  // The first column of the first row as an integer; 0 when there is none.
  std::int64_t scalar(const std::string& sql);

  // What SQLite last complained about. The next call on the connection may replace it.
  std::string errorText() const;

 private:
  struct Close {
    void operator()(sqlite3* connection) const;
  };
  std::unique_ptr<sqlite3, Close> handle_;
};

// Begins when made, rolls back when destroyed without a commit.
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
