// SPDX-License-Identifier: MIT

// A query as SQL that judges a record by itself, without the full-text index.
#pragma once

#include "runeflow/query/log_query.h"

namespace runeflow {

// The SQL function that takes the place of the index. It takes a message and a MATCH expression of
// LogQuery::ftsMatch() and returns whether the message satisfies the expression. The store defines
// it on its connections.
inline constexpr const char* kHasWordsFunction = "runeflow_has_words";

// Returns the query as compile() does, with kHasWordsFunction for the index. The binds are the
// same.
LogQuery::Compiled compileForJudging(const LogQuery& query);

}  // namespace runeflow
