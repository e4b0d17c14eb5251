// SPDX-License-Identifier: MIT

// The second compiler of the query tree: to a condition of ClickHouse's SQL on the fleet's table,
// as LogQuery::compile() compiles it to one of SQLite's. Both find the same records.
//
// What a user typed becomes a value, in a literal that sqlText() makes, or a number, never SQL. The
// structure of the condition follows from the tree alone.
//
// SQLite's conditions have three results: a condition on a field that a record lacks is neither
// true nor false, and so is its negation. The condition here has two results. A NOT is pushed down
// to the leaves, and each leaf is compiled to what makes it true or to what makes it false. A
// record that lacks the field satisfies neither.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "runeflow/model/source_descriptor.h"
#include "runeflow/query/log_query.h"
#include "runeflow/store/word_tokenizer.h"

namespace fleet {

// Returns the condition for records whose fields `descriptor` names; see descriptorOf(). Recursive,
// as all operations on a tree are.
std::string clauseOf(const runeflow::LogQuery& query, const runeflow::SourceDescriptor& descriptor,
                     const runeflow::WordTokenizer& tokenizer);

// What a user asks of the table.
struct Question {
  std::string text;  // in the query language, with the fields `capture` and `kind`
  bool matchCase = false;
  std::optional<std::int64_t> after = std::nullopt;  // seqs greater than this, in each capture
  std::optional<std::int64_t> since = std::nullopt;  // microseconds, included
  std::optional<std::int64_t> until = std::nullopt;  // microseconds, excluded
};

// Returns the condition for records of all kinds. The text is read once for each kind, with its
// fields, so that each record is judged as in its local database.
std::string conditionOf(const Question& question, const runeflow::WordTokenizer& tokenizer);

// Return the condition that a record is not before, or before, a time. They let the engine skip
// the hours outside it.
std::string notBefore(std::int64_t microseconds);
std::string before(std::int64_t microseconds);

}  // namespace fleet
