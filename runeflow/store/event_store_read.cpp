// SPDX-License-Identifier: MIT
#include <fmt/format.h>

#include <algorithm>

#include "runeflow/store/event_store.h"
#include "runeflow/store/open_database_p.h"
#include "runeflow/store/query_statement_p.h"
#include "runeflow/store/row_reader_p.h"

namespace runeflow {
namespace {

std::string recordColumns() {
  return fmt::format(kRecordColumns, "message");
}

std::vector<FetchedRow> readRows(OpenDatabase& database, Statement& statement,
                                 std::int64_t atMost) {
  std::vector<FetchedRow> rows;
  rows.reserve(static_cast<std::size_t>(std::clamp<std::int64_t>(atMost, 0, kMostRowsReserved)));
  RowReader reader(statement);
  database.forEachRow(statement, [&] { rows.emplace_back(statement.integer(0), reader); });
  return rows;
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
  const auto compiled = rewrittenForCapabilities(query).compile();
  return reading(database_.get(), [&](OpenDatabase& db) {
    std::int64_t count = 0;
    if (isRefused(db, compiled)) return count;
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
    Statement statement = db.prepare("SELECT " + recordColumns() +
                                     " FROM events WHERE seq BETWEEN ? AND ? ORDER BY seq");
    if (statement) {
      statement.bind(1, first);
      statement.bind(2, last);
    }
    return readRows(db, statement, isShort ? last - first + 1 : 0);
  });
}

std::vector<FetchedRow> EventStore::fetch(std::span<const std::int64_t> seqs) {
  if (seqs.empty()) return {};
  return reading(database_.get(), [&](OpenDatabase& db) {
    Statement statement =
        db.prepare(fmt::format("SELECT {} FROM events WHERE seq IN ({}) ORDER BY seq",
                               recordColumns(), parameterList(seqs.size())));
    if (statement) {
      int index = 1;
      for (const auto seq : seqs) statement.bind(index++, seq);
    }
    return readRows(db, statement, static_cast<std::int64_t>(seqs.size()));
  });
}

}  // namespace runeflow
