// SPDX-License-Identifier: MIT

// The lines of `runeflow values`.
#pragma once

#include <string_view>
#include <vector>

#include "runeflow/store/event_store.h"

namespace cli {

// Prints the values with their counts: for people with bars, for programs separated by a tab, or as
// JSON objects. `field` names the field among several, for people above the values and for programs
// on each line; it is empty if there is only one.
void printValues(const std::vector<runeflow::ValueCount>& values, std::string_view field,
                 bool isJson);

}  // namespace cli
