// SPDX-License-Identifier: MIT

#include "query_times.h"

#include <chrono>
#include <limits>

#include "host/failure.h"
#include "host/time_text.h"

namespace cli {

std::int64_t microsecondsNow() {
  const auto time = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::microseconds>(time).count();
}

runeflow::TimeSpan timesOf(const QueryConditions& options,
                           const std::function<std::int64_t()>& end) {
  runeflow::TimeSpan times{std::numeric_limits<std::int64_t>::min(),
                           std::numeric_limits<std::int64_t>::max()};
  const auto read = [&, now = microsecondsNow()](const std::string& text) {
    return host::parseTime(text, {.now = now, .end = text.starts_with("end") ? end() : now});
  };
  if (!options.since.empty()) times.from = read(options.since);
  if (!options.until.empty()) times.until = read(options.until);
  // Other times are excluded, so that consecutive spans do not overlap.
  if (options.until == "end") ++times.until;
  if (times.from >= times.until) {
    host::fail("--since {} is not before --until {}; no record could match", options.since,
               options.until);
  }
  return times;
}

}  // namespace cli
