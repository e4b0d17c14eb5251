// SPDX-License-Identifier: MIT
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <utility>

#include "runeflow/store/event_store.h"
#include "runeflow/store/open_database_p.h"
#include "runeflow/store/query_statement_p.h"
#include "runeflow/store/row_reader_p.h"

namespace runeflow {
namespace {

// Sums the counts of stored levels by the level that they stand for.
std::vector<ValueCount> countsByLevel(OpenDatabase& db, const LogQuery::Compiled& matching) {
  std::array<std::int64_t, 6> counts{};
  Statement statement =
      db.prepare(fmt::format("SELECT level, count(*) FROM events{}{} GROUP BY level",
                             matching.clause.empty() ? "" : " WHERE ", matching.clause));
  if (statement) bindAll(statement, 1, matching.binds);
  db.forEachRow(statement, [&] {
    counts[static_cast<std::size_t>(levelOfStored(statement.integer(0)))] += statement.integer(1);
  });
  std::vector<ValueCount> values;
  for (std::size_t level = 0; level < counts.size(); ++level) {
    if (counts[level] > 0) values.push_back({std::to_string(level), counts[level]});
  }
  std::ranges::sort(values, {}, [](const ValueCount& value) {
    return std::pair(-value.count, std::string_view(value.value));
  });
  return values;
}

bool isSlot(const StoreColumn& column) {
  return std::holds_alternative<StoreColumn::Slot>(column.value());
}

// The conditions for the non-empty values of a column that begin with `prefix`.
LogQuery::Compiled conditionsOf(const std::string& column, LogQuery::Compiled matching,
                                const std::optional<std::string>& prefix) {
  auto clause = fmt::format("{0} IS NOT NULL AND {0} <> ''", column);
  if (!matching.clause.empty()) clause += fmt::format(" AND ({})", matching.clause);
  if (prefix && !prefix->empty()) {
    clause += fmt::format(" AND {} LIKE ? ESCAPE '\\'", column);
    matching.binds.push_back(Bind::text(LogQuery::escapeLike(*prefix) + "%"));
  }
  return {std::move(clause), std::move(matching.binds)};
}

// Calls `use` with each value and the row in which it is column 0, the most frequent value first.
template <class Use>
void forEachValue(OpenDatabase& db, const std::string& column, std::string_view selected,
                  const LogQuery::Compiled& conditions, std::int64_t limit, Use use) {
  Statement statement = db.prepare(fmt::format(
      "SELECT {1} FROM events WHERE {2} GROUP BY {0} ORDER BY count(*) DESC, {0} ASC LIMIT ?",
      column, selected, conditions.clause));
  if (statement) statement.bind(bindAll(statement, 1, conditions.binds), limit);
  db.forEachRow(statement, [&] {
    if (auto value = statement.optionalText(0)) use(std::move(*value), statement);
  });
}

void cutToLimit(std::vector<ValueCount>& values, std::int64_t limit) {
  if (limit >= 0 && limit < std::ssize(values)) values.resize(static_cast<std::size_t>(limit));
}

}  // namespace

std::vector<std::string> EventStore::distinctValues(const StoreColumn& column,
                                                    const std::optional<LogQuery>& matching,
                                                    const std::optional<std::string>& prefix,
                                                    std::int64_t limit) {
  if (!isSlot(column)) return {};
  LogQuery::Compiled compiled;
  if (matching && !matching->isEmpty()) compiled = rewrittenForCapabilities(*matching).compile();
  const auto conditions = conditionsOf(column.sql(), std::move(compiled), prefix);
  return reading(database_.get(), [&](OpenDatabase& db) {
    std::vector<std::string> values;
    forEachValue(db, column.sql(), column.sql(), conditions, limit,
                 [&](std::string value, const Statement&) { values.push_back(std::move(value)); });
    return values;
  });
}

std::vector<ValueCount> EventStore::distinctValuesWithCounts(const StoreColumn& column,
                                                             std::int64_t limit) {
  if (!isSlot(column)) return {};
  return distinctValuesWithCounts(column, std::nullopt, std::nullopt, limit);
}

std::vector<ValueCount> EventStore::distinctValuesWithCounts(
    const StoreColumn& column, const std::optional<LogQuery>& matching,
    const std::optional<std::string>& prefix, std::int64_t limit) {
  const bool isLevel = column == StoreColumn::level();
  if (!isLevel && !isSlot(column)) return {};
  LogQuery::Compiled compiled;
  if (matching && !matching->isEmpty()) compiled = rewrittenForCapabilities(*matching).compile();
  return reading(database_.get(), [&](OpenDatabase& db) -> std::vector<ValueCount> {
    std::vector<ValueCount> values;
    if (isRefused(db, compiled)) return values;
    if (isLevel) {
      values = countsByLevel(db, compiled);
      std::erase_if(
          values, [&](const auto& value) { return !value.value.starts_with(prefix.value_or("")); });
      cutToLimit(values, limit);
      return values;
    }
    forEachValue(db, column.sql(), column.sql() + ", count(*)",
                 conditionsOf(column.sql(), compiled, prefix), limit,
                 [&](std::string value, const Statement& row) {
                   values.push_back({std::move(value), row.integer(1)});
                 });
    return values;
  });
}

std::vector<std::string> EventStore::valuesInOrder(const StoreColumn& column,
                                                   const std::string& prefix, std::int64_t limit) {
  if (!std::holds_alternative<StoreColumn::Slot>(column.value())) return {};
  const auto name = column.sql();
  // Without an index, a step would read the whole table.
  const auto indexed = descriptor_.indexedColumns();
  const bool steps = std::ranges::find(indexed, column) != indexed.end();
  const auto values =
      steps ? fmt::format(
                  "WITH RECURSIVE v(x) AS (SELECT min({0}) FROM events WHERE {0} > '' "
                  "UNION ALL SELECT (SELECT min({0}) FROM events WHERE {0} > v.x) "
                  "FROM v WHERE v.x IS NOT NULL) SELECT x FROM v WHERE x IS NOT NULL",
                  name)
            : fmt::format("SELECT DISTINCT {0} AS x FROM events WHERE {0} <> ''", name);
  return reading(database_.get(), [&](OpenDatabase& db) {
    std::vector<std::string> found;
    Statement statement = db.prepare(
        fmt::format("{} AND x LIKE ? ESCAPE '\\'{} LIMIT ?", values, steps ? "" : " ORDER BY x"));
    if (statement) {
      statement.bind(1, LogQuery::escapeLike(prefix) + "%");
      statement.bind(2, limit);
    }
    db.forEachRow(statement, [&] {
      if (auto value = statement.optionalText(0)) found.push_back(std::move(*value));
    });
    return found;
  });
}

}  // namespace runeflow
