// SPDX-License-Identifier: MIT

// A query in words, for users who want to know how their line was read.
#pragma once

#include <string>

#include "runeflow/model/source_descriptor.h"
#include "runeflow/query/log_query.h"

namespace host {

// Returns the query as a sentence: `level ≥ Info and text “wakelock” and not tag = “chatty”`, or
// "everything" for a query without a condition. Groups are in parentheses wherever the nesting
// would not be clear without. The texts are escaped by terminalText().
std::string inWords(const runeflow::LogQuery& query, const runeflow::SourceDescriptor& descriptor);

}  // namespace host
