// SPDX-License-Identifier: MIT

// What a user may have meant by a query that finds nothing.
#pragma once

#include <string_view>

#include "runeflow/store/event_store.h"

namespace cli {

// Says at most one sentence on standard error about a query that has found nothing: what of its
// line reads like a mistake, which values are meant by one that no record has, or that the letters
// of a word stand within words. Looks into the store for a fraction of a second, and not at all if
// standard error goes nowhere.
void hintAt(runeflow::EventStore& store, std::string_view line, const runeflow::LogQuery& query);

}  // namespace cli
