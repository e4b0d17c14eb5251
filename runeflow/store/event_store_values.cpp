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
std::vector<ValueCount> countsByLevel(OpenDatabase& db, const std::string& where,
                                      const std::vector<Bind>& binds) {
  std::array<std::int64_t, 6> counts{};
  Statement statement =
      db.prepare(fmt::format("SELECT level, count(*) FROM events{} GROUP BY level", where));
  if (statement) bindAll(statement, 1, binds);
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

void cutToLimit(std::vector<ValueCount>& values, std::int64_t limit) {
  if (limit >= 0 && limit < std::ssize(values)) values.resize(static_cast<std::size_t>(limit));
}

}  // namespace

std::vector<std::string> EventStore::distinctValues(const StoreColumn& column,
                                                    const std::optional<LogQuery>& matching,
                                                    const std::optional<std::string>& prefix,
                                                    std::int64_t limit) {
  if (!std::holds_alternative<StoreColumn::Slot>(column.value())) return {};
  const auto name = column.sql();
  std::string conditions = fmt::format("{0} IS NOT NULL AND {0} <> ''", name);
  std::vector<Bind> binds;
  if (matching && !matching->isEmpty()) {
    auto compiled = rewrittenForCapabilities(*matching).compile();
    conditions += fmt::format(" AND ({})", compiled.clause);
    binds = std::move(compiled.binds);
  }
  if (prefix && !prefix->empty()) {
    conditions += fmt::format(" AND {} LIKE ? ESCAPE '\\'", name);
    binds.push_back(Bind::text(LogQuery::escapeLike(*prefix) + "%"));
  }
  return reading(database_.get(), [&](OpenDatabase& db) {
    std::vector<std::string> values;
    Statement statement = db.prepare(fmt::format(
        "SELECT {0} FROM events WHERE {1} GROUP BY {0} ORDER BY count(*) DESC, {0} ASC LIMIT ?",
        name, conditions));
    if (statement) statement.bind(bindAll(statement, 1, binds), limit);
    db.forEachRow(statement, [&] {
      if (auto value = statement.optionalText(0)) values.push_back(std::move(*value));
    });
    return values;
  });
}

std::vector<ValueCount> EventStore::distinctValuesWithCounts(const StoreColumn& column,
                                                             std::int64_t limit) {
  if (!std::holds_alternative<StoreColumn::Slot>(column.value())) return {};
  return reading(database_.get(), [&](OpenDatabase& db) {
    std::vector<ValueCount> values;
    Statement statement = db.prepare(fmt::format(
        "SELECT {0}, count(*) FROM events WHERE {0} IS NOT NULL AND {0} <> '' GROUP BY {0} "
        "ORDER BY count(*) DESC, {0} ASC LIMIT ?",
        column.sql()));
    if (statement) statement.bind(1, limit);
    db.forEachRow(statement, [&] {
      if (auto value = statement.optionalText(0)) {
        values.push_back({std::move(*value), statement.integer(1)});
      }
    });
    return values;
  });
}

std::vector<ValueCount> EventStore::distinctValuesWithCounts(
    const StoreColumn& column, const std::optional<LogQuery>& matching,
    const std::optional<std::string>& prefix, std::int64_t limit) {
  const bool isLevel = column == StoreColumn::level();
  if (!isLevel && !std::holds_alternative<StoreColumn::Slot>(column.value())) return {};
  LogQuery::Compiled compiled{"1", {}};
  if (matching) compiled = rewrittenForCapabilities(*matching).compile();
  return reading(database_.get(), [&](OpenDatabase& db) -> std::vector<ValueCount> {
    std::vector<ValueCount> values;
    if (isRefused(db, compiled)) return values;
    if (isLevel) {
      values = countsByLevel(db, " WHERE " + compiled.clause, compiled.binds);
      std::erase_if(
          values, [&](const auto& value) { return !value.value.starts_with(prefix.value_or("")); });
      cutToLimit(values, limit);
      return values;
    }
    const bool hasPrefix = prefix && !prefix->empty();
    Statement statement = db.prepare(fmt::format(
        "SELECT {0}, count(*) FROM events WHERE {0} <> ''{1} AND {2} GROUP BY {0} "
        "ORDER BY count(*) DESC, {0} ASC LIMIT ?",
        column.sql(), hasPrefix ? fmt::format(R"( AND {} LIKE ? ESCAPE '\')", column.sql()) : "",
        compiled.clause));
    if (statement) {
      int index = 1;
      if (hasPrefix) statement.bind(index++, LogQuery::escapeLike(*prefix) + "%");
      statement.bind(bindAll(statement, index, compiled.binds), limit);
    }
    db.forEachRow(statement, [&] {
      if (auto value = statement.optionalText(0)) {
        values.push_back({std::move(*value), statement.integer(1)});
      }
    });
    return values;
  });
}

}  // namespace runeflow
