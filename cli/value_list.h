// SPDX-License-Identifier: MIT

// The lines of `runeflow values`.
#pragma once

#include <vector>

#include "runeflow/store/event_store.h"

namespace cli {

// Prints the values with their counts: for people with bars, for programs separated by a tab, or as
// JSON objects.
void printValues(const std::vector<runeflow::ValueCount>& values, bool isJson);

}  // namespace cli
