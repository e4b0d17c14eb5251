// The schema of a store's database, laid down in memory, and statements prepared against it.
#pragma once

#include <sqlite3.h>

#include <memory>
#include <string>

namespace runeflow::testing_support {

inline constexpr const char* eventsSchema =
    "CREATE TABLE IF NOT EXISTS events(\n"
    "  seq INTEGER PRIMARY KEY,\n"
    "  ts INTEGER NOT NULL, level INTEGER NOT NULL,\n"
    "  s0 TEXT, s1 TEXT, s2 TEXT, s3 TEXT, s4 TEXT, s5 TEXT, s6 TEXT, s7 TEXT,\n"
    "  message TEXT, ctx TEXT\n"
    ");"
    "CREATE VIRTUAL TABLE IF NOT EXISTS events_fts USING fts5(message, content='events', "
    "content_rowid='seq', tokenize='unicode61');";

struct CloseDatabase {
  void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
struct FinalizeStatement {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Database = std::unique_ptr<sqlite3, CloseDatabase>;
using Statement = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

// Null when SQLite lacks something that the schema needs.
inline Database emptyEvents() {
  sqlite3* db = nullptr;
  const int opened = sqlite3_open(":memory:", &db);
  Database owned(db);
  if (opened != SQLITE_OK ||
      sqlite3_exec(db, eventsSchema, nullptr, nullptr, nullptr) != SQLITE_OK) {
    owned.reset();
  }
  return owned;
}

// Null when SQLite refuses the text; sqlite3_errmsg then says why.
inline Statement prepare(const Database& db, const std::string& sql) {
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(db.get(), sql.c_str(), static_cast<int>(sql.size()), &statement, nullptr);
  return Statement(statement);
}

}  // namespace runeflow::testing_support
