// SPDX-License-Identifier: MIT

// What a user may have meant by a query that finds nothing.
#pragma once

#include <string_view>

#include "runeflow/store/event_store.h"

namespace cli {

// Prints at most one sentence on standard error about a query that has found nothing: a part of its
// line that looks like a mistake, values similar to one that no record has, or that messages hold a
// word only within other words. Reads the store for a fraction of a second. Does nothing if
// standard error is closed or goes to the null device.
void hintAt(runeflow::EventStore& store, std::string_view line, const runeflow::LogQuery& query);

}  // namespace cli
