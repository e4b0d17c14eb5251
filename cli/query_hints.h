// SPDX-License-Identifier: MIT

// What a user may have meant by a query that finds nothing.
#pragma once

#include "runeflow/store/event_store.h"

namespace cli {

// Says on standard error if no message holds a word of the query, but some hold its letters within
// a word, and names the option that finds them. Looks at the newest records for a fraction of a
// second.
void hintAtSubstring(runeflow::EventStore& store, const runeflow::LogQuery& query);

}  // namespace cli
