// SPDX-License-Identifier: MIT

// A timeline as bars on a terminal, and the division of a span of time into bars of a round width.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "commands.h"
#include "runeflow/store/event_store.h"

namespace cli {

// A span that is divided into bars of equal width.
struct TimelineGrid {
  runeflow::TimeSpan span;
  std::size_t bars;
};

// Returns a grid of at most `mostBars` bars around `span`, which must not be empty. The width of a
// bar is a round number of units (2 s, 15 min, 6 h), and the bars begin at multiples of it on a
// clock that is `offset` seconds ahead of UTC.
TimelineGrid roundGrid(runeflow::TimeSpan span, std::size_t mostBars, std::int64_t offset);

// Returns the seconds that the local clock is ahead of UTC at an instant in microseconds.
std::int64_t localOffset(std::int64_t microseconds);

// Returns how many bars the terminal of standard output has columns for.
std::size_t timelineColumns();

// Prints a bar chart of `rows` rows above a time axis in local time, with a column for each bar.
// With colour, a bar is red as far as its errors reach, then purple for its warnings. A bar with
// one record has at least an eighth of a row.
void printTimelineChart(const runeflow::Timeline& timeline, int rows);

// Prints one JSON object a line for each bar: its times, its records, and its records by level.
void printTimelineJson(const runeflow::Timeline& timeline);

// Asks `timeline` for the bars of the part of `span` that lies in `times`, and prints them as the
// options and standard output ask for. Returns the number of records in all bars.
std::int64_t printTimelineOf(
    runeflow::TimeSpan span, runeflow::TimeSpan times, const QueryOptions& options,
    const std::function<runeflow::Timeline(runeflow::TimeSpan, std::size_t)>& timeline);

}  // namespace cli
