// SPDX-License-Identifier: MIT
#include <fmt/format.h>

#include <algorithm>
#include <limits>

#include "runeflow/store/query_statement_p.h"

namespace runeflow {

std::string parameterList(std::size_t count) {
  std::string list = "?";
  list.reserve(2 * count);
  for (std::size_t i = 1; i < count; ++i) list += ",?";
  return list;
}

int bindAll(Statement& statement, int index, const std::vector<Bind>& binds) {
  for (const auto& bind : binds) statement.bind(index++, bind);
  return index;
}

Statement prepareMatching(OpenDatabase& database, std::string_view prefix,
                          const LogQuery::Compiled& query, std::int64_t after) {
  Statement statement = database.prepare(fmt::format(
      "{}SELECT seq FROM events WHERE seq > ? AND {} ORDER BY seq", prefix, query.clause));
  if (statement) {
    statement.bind(1, after);
    bindAll(statement, 2, query.binds);
  }
  return statement;
}

bool isRefused(OpenDatabase& database, const LogQuery::Compiled& query) {
  // A clause this short is far from every limit of SQLite.
  constexpr std::size_t kShortClause = 256;
  if (query.clause.size() <= kShortClause || prepareMatching(database, "", query, 0)) return false;
  database.noteFailure();
  return true;
}

}  // namespace runeflow
