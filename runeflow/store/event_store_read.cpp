// SPDX-License-Identifier: MIT
#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>

#include "runeflow/store/event_store.h"
#include "runeflow/store/open_database_p.h"

namespace runeflow {
namespace {

constexpr const char* kRecordColumns = "seq,ts,level,s0,s1,s2,s3,s4,s5,s6,s7,message,ctx";

// Positions in kRecordColumns.
constexpr int kTimestampColumn = 1;
constexpr int kLevelColumn = 2;
constexpr int kFirstSlotColumn = 3;
constexpr int kMessageColumn = 11;  // then ctx

constexpr std::int64_t kMostRowsReserved = 4096;

// Returns absence unless the text is a JSON object whose values are all strings.
std::optional<LogRow::Context> parseContext(std::string_view text) {
  const auto document = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (!document.is_object()) return std::nullopt;
  LogRow::Context ctx;
  for (const auto& [key, value] : document.items()) {
    if (!value.is_string()) return std::nullopt;
    ctx.emplace(key, value.get_ref<const std::string&>());
  }
  return ctx;
}

// Converts to a LogRow: the record of the statement's current row. Because the conversion happens
// inside emplace_back(), the record is constructed in its place in the list, which takes less time
// than moving it there. The views are members because constructing them for every row takes longer.
class RowReader {
 public:
  explicit RowReader(const Statement& statement) : statement_(statement) {}

  operator LogRow() {
    statement_.readTexts(kFirstSlotColumn, slots_);
    statement_.readTexts(kMessageColumn, messageAndContext_);
    const auto& [message, ctx] = messageAndContext_;
    // Uses only the low 32 bits of the level. Reads any number other than 0 to 5 as Info.
    const auto level =
        levelFromRawValue(static_cast<std::int32_t>(statement_.integer(kLevelColumn)));
    return {timestampFromMicroseconds(statement_.integer(kTimestampColumn)),
            level.value_or(RuneflowLogLevel::Info), message.value_or(std::string_view()),
            ctx ? parseContext(*ctx) : std::nullopt, slots_};
  }

 private:
  const Statement& statement_;
  LogRow::Slots slots_;
  std::array<std::optional<std::string_view>, 2> messageAndContext_;
};

std::vector<FetchedRow> readRows(OpenDatabase& database, Statement& statement,
                                 std::int64_t atMost) {
  std::vector<FetchedRow> rows;
  rows.reserve(static_cast<std::size_t>(std::clamp<std::int64_t>(atMost, 0, kMostRowsReserved)));
  RowReader reader(statement);
  database.forEachRow(statement, [&] { rows.emplace_back(statement.integer(0), reader); });
  return rows;
}

int bindAll(Statement& statement, int index, const std::vector<Bind>& binds) {
  for (const auto& bind : binds) statement.bind(index++, bind);
  return index;
}

// Prepares `prefix` followed by the statement of matchingSeqs().
Statement prepareMatching(OpenDatabase& database, const char* prefix,
                          const LogQuery::Compiled& query, std::int64_t after) {
  Statement statement = database.prepare(fmt::format(
      "{}SELECT seq FROM events WHERE seq > ? AND {} ORDER BY seq", prefix, query.clause));
  if (statement) {
    statement.bind(1, after);
    bindAll(statement, 2, query.binds);
  }
  return statement;
}

std::int32_t limitParameter(std::int64_t limit) {
  using Int32 = std::numeric_limits<std::int32_t>;
  return static_cast<std::int32_t>(std::clamp<std::int64_t>(limit, Int32::min(), Int32::max()));
}

}  // namespace

std::int64_t EventStore::minSeq() {
  return reading(database_.get(),
                 [](OpenDatabase& db) { return db.scalar("SELECT min(seq) FROM events"); });
}

std::int64_t EventStore::maxSeq() {
  return reading(database_.get(),
                 [](OpenDatabase& db) { return db.scalar("SELECT max(seq) FROM events"); });
}

std::int64_t EventStore::count() {
  return reading(database_.get(),
                 [](OpenDatabase& db) { return db.scalar("SELECT count(*) FROM events"); });
}

std::int64_t EventStore::countMatching(const LogQuery& query) {
  // A clause this short is far from every limit of SQLite.
  constexpr std::size_t kShortClause = 256;
  const auto compiled = rewrittenForCapabilities(query).compile();
  return reading(database_.get(), [&](OpenDatabase& db) {
    std::int64_t count = 0;
    // The statement of the list is a level deeper. If SQLite refuses it, the count fails as well.
    if (compiled.clause.size() > kShortClause && !prepareMatching(db, "", compiled, 0)) {
      db.noteFailure();
      return count;
    }
    Statement statement = db.prepare("SELECT count(*) FROM events WHERE " + compiled.clause);
    if (statement) bindAll(statement, 1, compiled.binds);
    db.forEachRow(statement, [&] { count = statement.integer(0); });
    return count;
  });
}

LogQuery EventStore::rewrittenForCapabilities(const LogQuery& query) const {
  LogQuery rewritten = ftsAvailable_ ? query : query.withFullTextAsSubstringScan();
  return jsonAvailable_ ? rewritten : rewritten.withContextAsSubstringScan();
}

std::vector<std::int64_t> EventStore::matchingSeqs(const LogQuery& query, std::int64_t after) {
  const auto compiled = rewrittenForCapabilities(query).compile();
  return reading(database_.get(), [&](OpenDatabase& db) {
    std::vector<std::int64_t> seqs;
    Statement statement = prepareMatching(db, "", compiled, after);
    db.forEachRow(statement, [&] { seqs.push_back(statement.integer(0)); });
    return seqs;
  });
}

std::vector<std::string> EventStore::matchingSeqsQueryPlan(const LogQuery& query,
                                                           std::int64_t after) {
  constexpr int kDetailColumn = 3;
  const auto compiled = rewrittenForCapabilities(query).compile();
  return reading(database_.get(), [&](OpenDatabase& db) {
    std::vector<std::string> details;
    Statement statement = prepareMatching(db, "EXPLAIN QUERY PLAN ", compiled, after);
    db.forEachRow(statement, [&] {
      if (auto detail = statement.optionalText(kDetailColumn)) {
        details.push_back(std::move(*detail));
      }
    });
    return details;
  });
}

std::vector<FetchedRow> EventStore::fetchRange(std::int64_t first, std::int64_t last) {
  // The bounds may be the ends of the range of 64 bits; last - first must not overflow.
  const bool isShort =
      first <= last && (first >= 0 || last < 0) && last - first < kMostRowsReserved;
  return reading(database_.get(), [&](OpenDatabase& db) {
    Statement statement = db.prepare(fmt::format(
        "SELECT {} FROM events WHERE seq BETWEEN ? AND ? ORDER BY seq", kRecordColumns));
    if (statement) {
      statement.bind(1, first);
      statement.bind(2, last);
    }
    return readRows(db, statement, isShort ? last - first + 1 : 0);
  });
}

std::vector<FetchedRow> EventStore::fetch(std::span<const std::int64_t> seqs) {
  if (seqs.empty()) return {};
  std::string placeholders = "?";
  placeholders.reserve(seqs.size() * 2);
  for (std::size_t i = 1; i < seqs.size(); ++i) placeholders += ",?";
  return reading(database_.get(), [&](OpenDatabase& db) {
    Statement statement = db.prepare(fmt::format(
        "SELECT {} FROM events WHERE seq IN ({}) ORDER BY seq", kRecordColumns, placeholders));
    if (statement) {
      int index = 1;
      for (const auto seq : seqs) statement.bind(index++, seq);
    }
    return readRows(db, statement, static_cast<std::int64_t>(seqs.size()));
  });
}

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
    if (statement) statement.bindInt32(bindAll(statement, 1, binds), limitParameter(limit));
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
    if (statement) statement.bindInt32(1, limitParameter(limit));
    db.forEachRow(statement, [&] {
      if (auto value = statement.optionalText(0)) {
        values.push_back({std::move(*value), statement.integer(1)});
      }
    });
    return values;
  });
}

}  // namespace runeflow
