// SPDX-License-Identifier: MIT
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "runeflow/query/judging_clause_p.h"
#include "runeflow/store/page_search_p.h"
#include "runeflow/store/query_statement_p.h"
#include "runeflow/store/scan_budget_p.h"
#include "runeflow/store/word_function_p.h"

namespace runeflow {
namespace {

// Adds up the time between records. A pause longer than the longest message takes is one in which
// the thread did not run or waited for a disk, and says nothing about the records.
class JudgingTime {
 public:
  ScanBudget::Duration elapsed() {
    constexpr ScanBudget::Duration kLongest = std::chrono::microseconds(500);
    const auto now = Clock::now();
    elapsed_ += std::min<ScanBudget::Duration>(now - std::exchange(last_, now), kLongest);
    return elapsed_;
  }

 private:
  using Clock = std::chrono::steady_clock;
  Clock::time_point last_ = Clock::now();
  ScanBudget::Duration elapsed_{};
};

// The conditions that every match satisfies: the children of the outermost ANDs.
void collectConditions(const QueryNode& node, std::vector<const FieldPredicate*>& conditions) {
  if (const auto* field = std::get_if<FieldPredicate>(&node.value())) conditions.push_back(field);
  const bool isAnd = std::holds_alternative<QueryNode::And>(node.value());
  if (!isAnd && node.children().size() != 1) return;
  if (std::holds_alternative<QueryNode::Not>(node.value())) return;
  for (const auto& child : node.children()) collectConditions(child, conditions);
}

bool hasNot(const QueryNode& node) {
  return std::holds_alternative<QueryNode::Not>(node.value()) ||
         std::ranges::any_of(node.children(), hasNot);
}

// An index of `events` and values of its first column. Every match has one of the values, and the
// index lists the records of each value by seq.
struct IndexLookup {
  std::string column;
  std::vector<Bind> values;
};

// Asks the full-text index whether it knows records. It does not know those that were stored
// without FTS5. The records are asked about in the order of the search.
class IndexedRecords {
 public:
  IndexedRecords(OpenDatabase& db, SearchOrder order)
      : isDescending_(order == SearchOrder::newestFirst),
        statement_(
            db.prepare(fmt::format("SELECT id FROM events_fts_docsize WHERE id {} ? ORDER BY id {}",
                                   isDescending_ ? "<=" : ">=", isDescending_ ? "DESC" : "ASC"))) {}

  bool holds(std::int64_t seq) {
    if (!statement_) return false;
    constexpr int kMostSteps = 8;
    for (int steps = 0; id_ && isBefore(*id_, seq); ++steps) {
      if (steps == kMostSteps) {
        id_.reset();
      } else {
        step();
        if (!id_) return false;
      }
    }
    if (!id_) {
      statement_.reset();
      statement_.bind(1, seq);
      step();
    }
    return id_ == seq;
  }

 private:
  bool isBefore(std::int64_t a, std::int64_t b) const { return isDescending_ ? a > b : a < b; }
  void step() {
    id_ = statement_.stepsToRow() ? std::optional(statement_.integer(0)) : std::nullopt;
  }

  bool isDescending_;
  Statement statement_;
  std::optional<std::int64_t> id_;  // the present row
};

class PageSearch {
 public:
  PageSearch(OpenDatabase& db, const LogQuery& query, SearchOrder order, std::int64_t first,
             std::int64_t last, std::int64_t limit, ScanBudget::Duration budget)
      : db_(db),
        query_(query),
        order_(order),
        first_(first),
        last_(last),
        limit_(limit),
        budget_(budget),
        compiled_(query.compile()),
        judging_(compileForJudging(query)),
        hasWords_(judging_.clause != compiled_.clause) {}

  std::vector<std::int64_t> run() {
    const OneMoment moment(db_);
    // Prepared first: a query that SQLite refuses fails as it does in the other reads, although the
    // clause for judging may be within the limits.
    Statement asking = prepareAsking();
    if (!asking) {
      db_.noteFailure();
      return {};
    }
    const bool canJudge = !hasWords_ || db_.wordFunction();
    if (!canJudge || judge()) ask(asking);
    return std::move(seqs_);
  }

 private:
  // What a scan has left over.
  enum class Outcome { unfinished, finished };

  // Reads and judges records as far as that pays. Returns whether seqs are left for the index.
  bool judge() {
    std::vector<const FieldPredicate*> conditions;
    collectConditions(query_.root, conditions);
    const bool isSingle = std::holds_alternative<FieldPredicate>(query_.root.value());
    // One comparison with an indexed slot: SQLite reads the index in order by itself.
    if (isSingle && isSlotEquality(*conditions.front())) return true;
    if (const auto slot = slotLookup(conditions)) return scan(*slot, false) == Outcome::unfinished;
    const auto levels = levelLookup(conditions);
    if (levels && isSingle) return scan(*levels, true) == Outcome::unfinished;
    if (scanRecords() == Outcome::finished) return false;
    return !levels || scan(*levels, false) == Outcome::unfinished;
  }

  static bool isSlotEquality(const FieldPredicate& field) {
    return field.op == FieldOp::equals &&
           std::holds_alternative<StoreColumn::Slot>(field.column.value());
  }

  std::optional<IndexLookup> slotLookup(const std::vector<const FieldPredicate*>& conditions) {
    for (const auto* field : conditions) {
      if (!isSlotEquality(*field)) continue;
      const auto column = field->column.sql();
      if (prepareScan(column)) return IndexLookup{column, {field->value.value_or(Bind::text(""))}};
    }
    return std::nullopt;
  }

  // The levels that the store holds and a condition allows. Absent if there is no condition on the
  // level, or if there is a number of levels that no decoder creates.
  std::optional<IndexLookup> levelLookup(const std::vector<const FieldPredicate*>& conditions) {
    for (const auto* field : conditions) {
      const auto* bound =
          field->value ? std::get_if<std::int64_t>(&field->value->value()) : nullptr;
      if (field->column != StoreColumn::level() || !bound) continue;
      if (field->op == FieldOp::equals) return IndexLookup{"level", {Bind::int_(*bound)}};
      if (field->op == FieldOp::greaterOrEqual || field->op == FieldOp::lessOrEqual) {
        using Level = std::numeric_limits<std::int64_t>;
        return field->op == FieldOp::greaterOrEqual ? levelsBetween(*bound, Level::max())
                                                    : levelsBetween(Level::min(), *bound);
      }
    }
    return std::nullopt;
  }

  std::optional<IndexLookup> levelsBetween(std::int64_t least, std::int64_t greatest) {
    const auto levels = db_.levelsFrom(least);
    if (!levels) return std::nullopt;
    IndexLookup lookup{"level", {}};
    for (const auto level : *levels) {
      if (level <= greatest) lookup.values.push_back(Bind::int_(level));
    }
    return lookup;
  }

  std::string_view direction() const { return order_ == SearchOrder::newestFirst ? "DESC" : "ASC"; }

  // CASE evaluates the clause as a condition of WHERE: only as far as needed.
  std::string judgingStatement(std::string_view table, std::string_view condition) const {
    return fmt::format(
        "SELECT seq, CASE WHEN {} THEN 1 ELSE 0 END FROM events {} WHERE {}seq BETWEEN ? AND ? "
        "ORDER BY seq {}",
        judging_.clause, table, condition, direction());
  }

  Statement prepareScan(std::string_view column) {
    return db_.prepare(judgingStatement(fmt::format("INDEXED BY i_{}", column),
                                        fmt::format("{} = ? AND ", column)));
  }

  Outcome scanRecords() {
    std::vector<Statement> cursors;
    cursors.push_back(db_.prepare(judgingStatement("NOT INDEXED", "")));
    if (!cursors.front()) return Outcome::unfinished;
    bindRange(cursors.front(), bindAll(cursors.front(), 1, judging_.binds));
    least_ = db_.scalar("SELECT min(seq) FROM events");
    greatest_ = db_.scalar("SELECT max(seq) FROM events");
    return follow(std::move(cursors), greatest_ - least_, false);
  }

  // `isWhole` means that the index lists only matches and that nothing else is faster.
  Outcome scan(const IndexLookup& lookup, bool isWhole) {
    std::vector<Statement> cursors;
    for (const auto& value : lookup.values) {
      auto& cursor = cursors.emplace_back(prepareScan(lookup.column));
      if (!cursor) return Outcome::unfinished;
      const int next = bindAll(cursor, 1, judging_.binds);
      cursor.bind(next, value);
      bindRange(cursor, next + 1);
    }
    return follow(std::move(cursors), 0, isWhole);
  }

  void bindRange(Statement& statement, int index) const {
    statement.bind(index, first_);
    statement.bind(index + 1, last_);
  }

  // Reads the records of all cursors in the order of their seqs. Stops before a record that cannot
  // be judged, and leaves errors to the index: SQLite may never evaluate the failing condition
  // there.
  Outcome follow(std::vector<Statement> cursors, std::int64_t records, bool isWhole) {
    ScanBudget budget(limit_, records, budget_);
    JudgingTime time;
    std::optional<IndexedRecords> indexed;
    if (hasWords_) indexed.emplace(db_, order_);
    // Without NOT, a record that does not match by its words does not match by the index either.
    const bool mayMatchUnindexed = hasNot(query_.root);
    if (hasWords_) db_.wordFunction()->takeWasTooLong();
    // A long message ends the scan early if another cursor meets it; its records then stay unread.
    const auto steps = [&](Statement& cursor) {
      const auto step = cursor.step();
      hasFailed_ = hasFailed_ || step == Statement::Step::error ||
                   (hasWords_ && db_.wordFunction()->takeWasTooLong());
      return step == Statement::Step::row;
    };
    std::erase_if(cursors, [&](Statement& cursor) { return !steps(cursor); });
    while (!hasFailed_ && !cursors.empty()) {
      const auto next = std::ranges::min_element(cursors, [&](const auto& a, const auto& b) {
        return order_ == SearchOrder::newestFirst ? a.integer(0) > b.integer(0)
                                                  : a.integer(0) < b.integer(0);
      });
      const auto seq = next->integer(0);
      const bool isMatch = next->integer(1) != 0;
      if (indexed && (isMatch || mayMatchUnindexed) && !indexed->holds(seq)) {
        return Outcome::unfinished;
      }
      if (isMatch) seqs_.push_back(seq);
      if (isMatch && --limit_ == 0) return Outcome::finished;
      if (seq == lastOfRange()) return Outcome::finished;
      passBy(seq);
      if (!budget.count(isMatch, time.elapsed(), seqsLeft()) && !isWhole) {
        return Outcome::unfinished;
      }
      if (!steps(*next)) cursors.erase(next);
    }
    return std::exchange(hasFailed_, false) ? Outcome::unfinished : Outcome::finished;
  }

  std::int64_t lastOfRange() const { return order_ == SearchOrder::newestFirst ? first_ : last_; }

  // Returns how many seqs of the range may have records.
  std::uint64_t seqsLeft() const {
    const auto first = std::max(first_, least_);
    const auto last = std::min(last_, greatest_);
    return first <= last ? distance(first, last) + 1 : 0;
  }

  // Removes the seqs up to `seq`, in the order of the search, from the range.
  void passBy(std::int64_t seq) {
    if (order_ == SearchOrder::newestFirst) {
      last_ = seq - 1;
    } else {
      first_ = seq + 1;
    }
  }

  // The statement of matchingSeqs() for a piece of its list.
  Statement prepareAsking() {
    return db_.prepare(fmt::format(
        "SELECT seq FROM events WHERE seq BETWEEN ? AND ? AND {} ORDER BY seq {} LIMIT ?",
        compiled_.clause, direction()));
  }

  void ask(Statement& asking) {
    bindRange(asking, 1);
    asking.bind(bindAll(asking, 3, compiled_.binds), limit_);
    db_.forEachRow(asking, [&] { seqs_.push_back(asking.integer(0)); });
  }

  OpenDatabase& db_;
  const LogQuery& query_;
  SearchOrder order_;
  std::int64_t first_;  // what is left of the range
  std::int64_t last_;
  // Of all records, as far as known.
  std::int64_t least_ = std::numeric_limits<std::int64_t>::min();
  std::int64_t greatest_ = std::numeric_limits<std::int64_t>::max();
  std::int64_t limit_;  // how many matches are left to find
  ScanBudget::Duration budget_;
  LogQuery::Compiled compiled_;
  LogQuery::Compiled judging_;
  bool hasWords_;
  bool hasFailed_ = false;
  std::vector<std::int64_t> seqs_;
};

}  // namespace

std::vector<std::int64_t> searchPage(OpenDatabase& db, const LogQuery& query, SearchOrder order,
                                     std::int64_t first, std::int64_t last, std::int64_t limit,
                                     ScanBudget::Duration budget) {
  return PageSearch(db, query, order, first, last, limit, budget).run();
}

}  // namespace runeflow
