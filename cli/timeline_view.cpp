// SPDX-License-Identifier: MIT
#include "timeline_view.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <nlohmann/json.hpp>
#include <numeric>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/record_text.h"
#include "json_line.h"
#include "terminal.h"

namespace cli {

using runeflow::Timeline;
using runeflow::TimeSpan;

namespace {

constexpr std::int64_t kSecond = 1'000'000;  // microseconds
constexpr std::int64_t kMinute = 60 * kSecond;
constexpr std::int64_t kHour = 60 * kMinute;
constexpr std::int64_t kDay = 24 * kHour;
constexpr std::size_t kLabelColumns = 11;  // the scale on the left and the axis
constexpr int kEighths = 8;                // of a row

// The round widths below ten days. From a day on, powers of ten times 1, 2 and 5 days follow.
constexpr std::array<std::int64_t, 42> kWidths = {
    1,        2,           5,           10,           20,           50,
    100,      200,         500,         1'000,        2'000,        5'000,
    10'000,   20'000,      50'000,      100'000,      200'000,      500'000,
    kSecond,  2 * kSecond, 5 * kSecond, 10 * kSecond, 15 * kSecond, 30 * kSecond,
    kMinute,  2 * kMinute, 5 * kMinute, 10 * kMinute, 15 * kMinute, 30 * kMinute,
    kHour,    2 * kHour,   3 * kHour,   6 * kHour,    12 * kHour,   kDay,
    2 * kDay, 5 * kDay,    10 * kDay,   20 * kDay,    50 * kDay,    100 * kDay};

// Returns the round width after `width`; 0 if none fits 64 bits.
std::int64_t nextWidth(std::int64_t width) {
  const auto* const next = std::ranges::upper_bound(kWidths, width);
  if (next != kWidths.end()) return *next;
  const bool isTwo = std::to_string(width / kDay).front() == '2';
  std::int64_t wider = 0;
  if (__builtin_mul_overflow(width, isTwo ? 5 : 2, &wider)) return 0;
  return isTwo ? wider / 2 : wider;
}

std::uint64_t lengthOf(TimeSpan span) {
  return static_cast<std::uint64_t>(span.until) - static_cast<std::uint64_t>(span.from);
}

// Returns the largest multiple of `width` on the clock that is not above `time`, and false if it
// does not fit 64 bits.
bool roundDown(std::int64_t& time, std::int64_t width, std::int64_t offset) {
  const auto phase = (time % width + offset * kSecond % width) % width;
  return !__builtin_sub_overflow(time, phase < 0 ? phase + width : phase, &time);
}

bool fits(TimelineGrid& grid, std::int64_t width, std::int64_t offset, std::size_t mostBars) {
  auto [from, until] = grid.span;
  if (!roundDown(from, width, offset)) return false;
  const auto bars = (lengthOf({from, until}) - 1) / static_cast<std::uint64_t>(width) + 1;
  if (bars > mostBars) return false;
  std::int64_t length = 0;
  if (__builtin_mul_overflow(static_cast<std::int64_t>(bars), width, &length)) return false;
  if (__builtin_add_overflow(from, length, &until)) return false;
  grid = {{from, until}, static_cast<std::size_t>(bars)};
  return true;
}

std::int64_t total(const Timeline::Bar& bar) {
  return std::accumulate(bar.begin(), bar.end(), std::int64_t{0});
}

// How high the parts of a bar reach, in eighths of a row.
struct Heights {
  int errors;    // errors and worse
  int warnings;  // errors and warnings
  int all;
};

// Returns the heights of a bar in a chart in which `most` records are `full` eighths.
Heights heightsOf(const Timeline::Bar& bar, std::int64_t most, int full) {
  const auto height = [&](std::int64_t records) {
    if (records <= 0 || most <= 0) return 0;
    const auto share = static_cast<double>(records) / static_cast<double>(most);
    return std::max(1, static_cast<int>(share * full));
  };
  const auto errors = bar[4] + bar[5];
  return {height(errors), height(errors + bar[3]), height(total(bar))};
}

std::string_view colourAt(const Heights& heights, int eighth) {
  if (eighth < heights.errors) return colour::kRed;
  return eighth < heights.warnings ? colour::kPurple : std::string_view();
}

std::string rowText(const std::vector<Heights>& heights, int row, bool usesColour) {
  constexpr std::string_view kBlocks[] = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
  std::string text;
  std::string_view colour;
  for (const auto& bar : heights) {
    const auto filled = std::clamp(bar.all - row * kEighths, 0, kEighths);
    const auto wanted =
        usesColour && filled > 0 ? colourAt(bar, row * kEighths) : std::string_view();
    if (wanted != colour) {
      if (!colour.empty()) text += colour::kReset;
      text += wanted;
      colour = wanted;
    }
    text += kBlocks[filled];
  }
  if (!colour.empty()) text += colour::kReset;
  return text;
}

// Returns the local time as precisely as multiples of `width` need it.
std::string localTime(std::int64_t microseconds, std::int64_t width) {
  constexpr std::size_t kMillisecondDigits = 4;  // and the dot
  const bool isFine = width < 1'000;
  auto text =
      host::localTime(runeflow::timestampFromMicroseconds(microseconds),
                      isFine ? host::TimeDigits::microseconds : host::TimeDigits::milliseconds);
  if (width >= kSecond) text.resize(text.size() - kMillisecondDigits);
  return text;
}

// Returns the part of a local time that tells ticks of that distance apart.
std::string tickLabel(std::int64_t microseconds, std::int64_t distance) {
  auto text = localTime(microseconds, distance);
  const auto blank = text.find(' ');
  if (blank == std::string::npos) return text;
  if (distance >= kDay) return text.substr(0, blank);
  return text.substr(blank + 1, distance >= kMinute ? 5 : std::string::npos);
}

std::string widthText(std::int64_t width) {
  static constexpr std::pair<std::int64_t, std::string_view> kUnits[] = {
      {kDay, "d"}, {kHour, "h"}, {kMinute, "min"}, {kSecond, "s"}, {1'000, "ms"}, {1, "µs"}};
  for (const auto& [unit, name] : kUnits) {
    if (width >= unit) return fmt::format("{} {}", width / unit, name);
  }
  return {};
}

struct Axis {
  std::string line;
  std::string labels;
};

// Returns a tick with its label wherever the local clock is at a multiple of a round distance.
Axis axisOf(const Timeline& timeline, std::int64_t width) {
  constexpr std::int64_t kLabelDistance = 14;  // columns
  std::int64_t distance = width;
  while (distance != 0 && (distance % width != 0 || distance / width < kLabelDistance)) {
    distance = nextWidth(distance);
  }
  Axis axis;
  for (std::size_t i = 0; i < timeline.bars.size(); ++i) {
    auto tick = timeline.boundary(i);
    const bool isTick = distance != 0 && roundDown(tick, distance, localOffset(tick)) &&
                        tick == timeline.boundary(i);
    axis.line += isTick ? "┬" : "─";
    if (!isTick) continue;
    const auto label = tickLabel(tick, distance);
    if (axis.labels.size() > i || i + label.size() > timeline.bars.size()) continue;
    axis.labels.resize(i, ' ');
    axis.labels += label;
  }
  return axis;
}

}  // namespace

TimelineGrid roundGrid(TimeSpan span, std::size_t mostBars, std::int64_t offset) {
  TimelineGrid grid{span, mostBars};
  for (auto width = kWidths.front(); width != 0; width = nextWidth(width)) {
    if (fits(grid, width, offset, mostBars)) return grid;
  }
  return grid;  // a span of most of the 64 bits
}

std::int64_t localOffset(std::int64_t microseconds) {
  const std::time_t time =
      std::chrono::floor<std::chrono::seconds>(std::chrono::microseconds(microseconds)).count();
  std::tm fields{};
  return localtime_r(&time, &fields) ? fields.tm_gmtoff : 0;
}

std::size_t timelineColumns() {
  constexpr std::size_t kFewest = 20;
  return std::max(static_cast<std::size_t>(terminalWidth(stdout)), kLabelColumns + kFewest) -
         kLabelColumns;
}

void printTimelineChart(const Timeline& timeline, int rows) {
  std::int64_t most = 0;
  for (const auto& bar : timeline.bars) most = std::max(most, total(bar));
  std::vector<Heights> heights;
  heights.reserve(timeline.bars.size());
  for (const auto& bar : timeline.bars) heights.push_back(heightsOf(bar, most, rows * kEighths));
  for (int row = rows - 1; row >= 0; --row) {
    const bool isTop = row == rows - 1;
    fmt::print("{:>9} {}{}\n", isTop ? std::to_string(most) : "", isTop ? "┤" : "│",
               rowText(heights, row, showsColour(stdout)));
  }
  const auto width = std::max<std::int64_t>(
      static_cast<std::int64_t>(lengthOf(timeline.span) / timeline.bars.size()), 1);
  const auto axis = axisOf(timeline, width);
  const std::string indent(kLabelColumns, ' ');
  fmt::print("{:>9} ┼{}\n{}{}\n", 0, axis.line, indent, axis.labels);
  fmt::print("{}{} to {}, {} a column\n", std::string(kLabelColumns - 2, ' '),
             localTime(timeline.span.from, width), localTime(timeline.span.until, width),
             widthText(width));
}

void printTimelineJson(const Timeline& timeline) {
  const auto time = [](std::int64_t microseconds) {
    return host::utcTime(runeflow::timestampFromMicroseconds(microseconds));
  };
  for (std::size_t i = 0; i < timeline.bars.size(); ++i) {
    nlohmann::ordered_json object;
    object["from"] = time(timeline.boundary(i));
    object["until"] = time(timeline.boundary(i + 1));
    object["records"] = total(timeline.bars[i]);
    for (std::size_t level = 0; level < timeline.bars[i].size(); ++level) {
      object["levels"]
            [std::string(host::levelName(static_cast<runeflow::RuneflowLogLevel>(level)))] =
                timeline.bars[i][level];
    }
    fmt::print("{}\n", jsonLine(object, isTerminal(stdout)));
  }
}

std::int64_t printTimelineOf(TimeSpan span, TimeSpan times, const QueryOptions& options,
                             const std::function<Timeline(TimeSpan, std::size_t)>& timeline) {
  constexpr int kRows = 8;
  constexpr std::size_t kUsualBars = 100;
  span.from = std::max(span.from, times.from);
  span.until = std::min(span.until, times.until);
  if (span.from >= span.until) return 0;
  const bool draws = isForPeople() && !options.isJson;
  const auto bars = options.bars ? static_cast<std::size_t>(*options.bars)
                                 : (draws ? timelineColumns() : kUsualBars);
  const auto grid = roundGrid(span, bars, draws ? localOffset(span.from) : 0);
  const auto found = timeline(grid.span, grid.bars);
  if (draws) {
    fmt::print("times: {}\n", host::localZone());
    printTimelineChart(found, kRows);
  } else {
    printTimelineJson(found);
  }
  std::int64_t records = 0;
  for (const auto& bar : found.bars) records += total(bar);
  return records;
}

}  // namespace cli
