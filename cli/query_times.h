// SPDX-License-Identifier: MIT

// The options --since and --until.
#pragma once

#include <cstdint>
#include <functional>

#include "commands.h"
#include "runeflow/store/event_store.h"

namespace cli {

// Returns the microseconds since 1970 of the system's clock.
std::int64_t microsecondsNow();

// Returns the times from --since to before --until; the ends of 64 bits where an option is missing.
// `end` returns the time of the newest record and is called if a text refers to it. Fails if no
// record could match.
runeflow::TimeSpan timesOf(const QueryConditions& options,
                           const std::function<std::int64_t()>& end);

}  // namespace cli
