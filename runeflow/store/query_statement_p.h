// SPDX-License-Identifier: MIT

// Statements with the clause of a query.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "runeflow/query/log_query.h"
#include "runeflow/store/open_database_p.h"

namespace runeflow {

// Returns `count` parameters separated by commas: "?,?,?". `count` must be at least 1.
std::string parameterList(std::size_t count);

// Binds the values from the parameter `index` on. Returns the next index.
int bindAll(Statement& statement, int index, const std::vector<Bind>& binds);

// Prepares `prefix` followed by the statement of matchingSeqs().
Statement prepareMatching(OpenDatabase& database, std::string_view prefix,
                          const LogQuery::Compiled& query, std::int64_t after);

// Returns whether SQLite refuses the statement of matchingSeqs(), and notes that failure. The
// clauses of other statements lie less deep; a query must fail in all reads or in none.
bool isRefused(OpenDatabase& database, const LogQuery::Compiled& query);

}  // namespace runeflow
