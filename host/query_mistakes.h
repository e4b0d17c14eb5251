// SPDX-License-Identifier: MIT

// What a user may have meant by a query that finds nothing. Every line is a valid query, so that a
// mistake shows only as an empty answer.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "runeflow/model/source_descriptor.h"
#include "runeflow/store/event_store.h"

namespace host {

// Returns a sentence on the first part of the line that reads like a mistake: an open quote or
// parenthesis, an operator in lower case, a field or level that does not exist, a comparison that
// the language does not have. Returns an empty text if there is none.
std::string mistakeIn(std::string_view line, const runeflow::SourceDescriptor& descriptor);

// Returns a sentence on the first value of a field that no record has, if records have values that
// differ from it only in case or begin with it; names up to three of them. Conditions under a NOT
// are not examined. Returns an empty text if there is none. Reads an index of each such field once;
// the caller bounds the time with EventStore::setCancellation().
std::string otherValuesFor(runeflow::EventStore& store, const runeflow::LogQuery& query);

// Returns the one of `names` that is nearest to `name`, with at most two letters inserted, removed,
// replaced or swapped, and at most a third of its letters. Returns an empty text if none is.
std::string nearest(std::string_view name, const std::vector<std::string>& names);

}  // namespace host
