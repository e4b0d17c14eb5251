// SPDX-License-Identifier: MIT
#include "question.h"

#include <fmt/format.h>

#include <system_error>
#include <utility>
#include <vector>

#include "host/database.h"
#include "host/failure.h"
#include "pager.h"
#include "query_times.h"
#include "runeflow/query/query_parser.h"
#include "terminal.h"

namespace cli {

using runeflow::EventStore;
using runeflow::FieldOp;
using runeflow::LogQuery;
using runeflow::QueryNode;
using runeflow::StoreColumn;

namespace {

QueryNode containing(const std::string& text) {
  constexpr std::size_t kLongestPattern = 50'000;  // bytes; SQLite's limit for LIKE
  if (LogQuery::escapeLike(text).size() + 2 > kLongestPattern) {
    host::fail("the text of --contains is too long; SQLite takes at most {} bytes",
               kLongestPattern - 2);
  }
  return QueryNode::field({StoreColumn::message(), FieldOp::contains, runeflow::Bind::text(text)});
}

}  // namespace

std::int64_t endOf(EventStore& store) {
  const auto newest = store.maxSeq();
  const auto records = store.fetchPreviewRange(newest, newest, 0);
  const auto time = records.empty()
                        ? std::nullopt
                        : runeflow::microsecondsSinceEpoch(records.front().row.timestamp());
  return time.value_or(microsecondsNow());
}

Question questionOf(const QueryConditions& options, std::int64_t end, EventStore& store,
                    const std::string& path) {
  Question question{
      runeflow::QueryParser::parse(options.text, store.descriptor(), options.matchCase),
      {},
      timesOf(options, [end] { return end; }),
      {}};
  if (options.expression) question.filter.emplace(*options.expression);
  std::vector<QueryNode> conditions;
  const auto addTime = [&](FieldOp op, std::int64_t time) {
    conditions.push_back(
        QueryNode::field({StoreColumn::timestamp(), op, runeflow::Bind::int_(time)}));
  };
  if (!options.since.empty()) addTime(FieldOp::greaterOrEqual, question.times.from);
  if (!options.until.empty()) addTime(FieldOp::lessOrEqual, question.times.until - 1);
  if (conditions.empty() && !options.contained) {
    question.query = question.typed;
  } else {
    if (!question.typed.isEmpty()) conditions.push_back(question.typed.root);
    if (options.contained) conditions.push_back(containing(*options.contained));
    question.query = {QueryNode::and_(std::move(conditions))};
  }
  host::failIfRefused(store, question.query, path);
  return question;
}

RecordFormat formatOf(const QueryOptions& options) {
  if (options.isJson) return RecordFormat::json;
  if (options.isCsv) return RecordFormat::csv;
  return isForPeople() ? RecordFormat::people : RecordFormat::plain;
}

host::MessageMarks marksOf(const Question& question, const QueryConditions& options) {
  return {question.typed, options.matchCase, options.contained.value_or(""), question.filter};
}

std::int64_t printRecordsTo(const QueryOptions& options,
                            const std::function<std::int64_t(std::FILE*)>& print) {
  if (!options.usesPager || !isTerminal(stdout)) return print(stdout);
  std::int64_t printed = 1;
  Pager pager;
  try {
    printed = print(pager.stream());
  } catch (const std::system_error&) {
    // The user has quit the pager.
  }
  pager.wait();
  return printed;
}

}  // namespace cli
