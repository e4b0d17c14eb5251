// SPDX-License-Identifier: MIT

// Parses any bytes as a typed query. SQLite must be able to prepare its clause, also after the
// full-text and context conditions are rewritten as substring scans.
#include <sqlite3.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "runeflow/query/query_parser.h"

namespace {

using namespace runeflow;

void require(bool holds) {
  if (!holds) std::abort();
}

// Returns true if `clause` is well within two limits of SQLite: the nesting depth of parentheses
// (the parser's stack holds 100 symbols) and the length of a chain of ANDs or ORs (1,000). Each
// link of a chain contains two spaces.
bool isWithinSqliteLimits(std::string_view clause) {
  int depth = 0;
  int deepest = 0;
  for (const char c : clause) {
    depth += c == '(' ? 1 : c == ')' ? -1 : 0;
    deepest = std::max(deepest, depth);
  }
  return deepest < 20 && std::ranges::count(clause, ' ') < 1'800;
}

// Returns a new in-memory database with the tables of a store.
sqlite3* emptyEvents() {
  sqlite3* db = nullptr;
  require(sqlite3_open(":memory:", &db) == SQLITE_OK);
  constexpr const char* kSchema =
      "CREATE TABLE events(seq INTEGER PRIMARY KEY, ts INTEGER NOT NULL, level INTEGER NOT NULL, "
      "s0 TEXT, s1 TEXT, s2 TEXT, s3 TEXT, s4 TEXT, s5 TEXT, s6 TEXT, s7 TEXT, message TEXT, "
      "ctx TEXT);"
      "CREATE VIRTUAL TABLE events_fts USING fts5(message, content='events', content_rowid='seq', "
      "tokenize='unicode61');";
  require(sqlite3_exec(db, kSchema, nullptr, nullptr, nullptr) == SQLITE_OK);
  return db;
}

using Statement = std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)>;

// Returns null if SQLite cannot prepare `sql`.
Statement prepare(sqlite3* db, const std::string& sql) {
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size()), &statement, nullptr);
  return {statement, sqlite3_finalize};
}

void checkClause(const LogQuery& query) {
  static sqlite3* const db = emptyEvents();
  const auto compiled = query.compile();
  const auto placeholders = std::ranges::count(compiled.clause, '?');
  require(static_cast<std::size_t>(placeholders) == compiled.binds.size());
  const auto statement = prepare(db, "SELECT seq FROM events WHERE " + compiled.clause);
  if (!statement) {
    require(!isWithinSqliteLimits(compiled.clause));
    return;
  }
  require(sqlite3_bind_parameter_count(statement.get()) == placeholders);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const bool matchCase = (data[0] & 1) != 0;
  const auto& descriptor =
      (data[0] & 2) != 0 ? SourceDescriptor::dlt() : SourceDescriptor::logcat();
  const std::string_view typed(reinterpret_cast<const char*>(data + 1), size - 1);

  const auto query = QueryParser::parse(typed, descriptor, matchCase);
  const auto scans = query.withFullTextAsSubstringScan().withContextAsSubstringScan();
  require(scans == query.withContextAsSubstringScan().withFullTextAsSubstringScan());
  require(QueryParser::highlightTerms(scans.root) == QueryParser::highlightTerms(query.root));
  checkClause(query);
  checkClause(scans);
  return 0;
}
