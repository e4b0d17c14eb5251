// SPDX-License-Identifier: MIT
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>

#include "commands.h"
#include "fleet_commands.h"
#include "host/database.h"
#include "host/failure.h"
#include "host/record_text.h"
#include "json_line.h"
#include "level_counts.h"
#include "output.h"
#include "runeflow/platform/app_log.h"
#include "terminal.h"
#include "timeline_view.h"

namespace cli {

using runeflow::EventStore;

namespace {

constexpr int kLabelColumns = 24;  // before a bar

struct Summary {
  runeflow::StoreInfo info;
  std::string kind;
  std::int64_t usedBytes;
  std::int64_t records;
  std::int64_t firstSeq;
  std::int64_t lastSeq;
  std::optional<runeflow::TimeSpan> times;
  LevelCounts levels;
};

Summary summarise(EventStore& store, const std::string& path, int attempts = 5) {
  std::optional<EventStore::Snapshot> moment(std::in_place, store);
  const auto first = store.minSeq();
  const auto last = store.maxSeq();
  Summary summary{EventStore::inspect(path),
                  store.descriptor().id(),
                  store.usedBytes(),
                  store.count(),
                  first,
                  last,
                  store.timeSpan(first, last),
                  countLevels(store, {})};
  if (attempts <= 1 || !moment->isDisturbed()) return summary;
  moment.reset();
  store.takeError();  // a file that changes under the reads may look damaged
  return summarise(store, path, attempts - 1);
}

// The earliest and the latest time. If clocks jump, these are not the times of the first and the
// last record.
std::optional<std::int64_t> firstTime(const Summary& summary) {
  return summary.times ? std::optional(summary.times->from) : std::nullopt;
}
std::optional<std::int64_t> lastTime(const Summary& summary) {
  return summary.times ? std::optional(summary.times->until - 1) : std::nullopt;
}

void printJson(const std::string& path, const Summary& summary) {
  nlohmann::ordered_json object;
  const auto time = [](std::optional<std::int64_t> microseconds) {
    return microseconds ? nlohmann::ordered_json(
                              host::utcTime(runeflow::timestampFromMicroseconds(*microseconds)))
                        : nlohmann::ordered_json(nullptr);
  };
  object["database"] = path;
  object["source"] = summary.kind;
  object["records"] = summary.records;
  object["firstSeq"] = summary.firstSeq;
  object["lastSeq"] = summary.lastSeq;
  object["firstTime"] = time(firstTime(summary));
  object["lastTime"] = time(lastTime(summary));
  for (const auto& [level, count] : summary.levels)
    object["levels"][std::string(host::levelName(level))] = count;
  object["usedBytes"] = summary.usedBytes;
  object["indexes"] = summary.info.indexes;
  object["fullText"] = summary.info.hasFullText;
  fmt::print("{}\n", jsonLine(object, isTerminal(stdout)));
}

void printText(const std::string& path, const runeflow::SourceDescriptor& descriptor,
               const Summary& summary) {
  const auto time = [](std::optional<std::int64_t> microseconds) {
    return microseconds ? host::localTime(runeflow::timestampFromMicroseconds(*microseconds))
                        : std::string("-");
  };
  printLine("{}: {} records", path, descriptor.displayName());
  printLine("  records     {}", summary.records);
  printLine("  seq         {} to {}", summary.firstSeq, summary.lastSeq);
  printLine("  time        {} to {} {}", time(firstTime(summary)), time(lastTime(summary)),
            host::localZone());
  std::int64_t most = 0;
  for (const auto& [level, count] : summary.levels) most = std::max(most, count);
  for (const auto& [level, count] : summary.levels) {
    printLine("  {:<10} {:>9}  {}", host::levelName(level), count,
              bar(count, most, barColumns(kLabelColumns)));
  }
  printLine("  used bytes  {}", summary.usedBytes);
  printLine("  indexes     {}", fmt::join(summary.info.indexes, ", "));
  printLine("  full text   {}", summary.info.hasFullText ? "yes" : "no");
}

// Draws when the records were. Only a terminal is worth the time that this takes.
void drawTimeline(EventStore& store, const Summary& summary) {
  constexpr int kRows = 4;
  if (!summary.times || !isForPeople()) return;
  const auto grid = roundGrid(*summary.times, timelineColumns(), localOffset(summary.times->from));
  printTimelineChart(store.timeline({}, grid.span, grid.bars), kRows);
}

bool hasConsent(const std::string& path, std::int64_t records) {
  if (::isatty(STDIN_FILENO) != 1)
    host::fail("clearing {} needs --yes if standard input is not a terminal", path);
  ask("Delete {} of {}? [y/N] ", counted(records, "record"), path);
  std::string answer;
  if (!std::getline(std::cin, answer)) writeError("\n");
  const bool agrees = answer == "y" || answer == "Y" || answer == "yes";
  if (!agrees) say("nothing deleted");
  return agrees;
}

}  // namespace

int info(const InfoOptions& options) {
  if (isFleet(options.database)) return infoOfFleet(options);
  auto store = host::openDatabase(options.database, options.source);
  const auto summary = summarise(store, options.database);
  host::failIfIncomplete(store, options.database);
  if (options.isJson) {
    printJson(options.database, summary);
  } else {
    printText(options.database, store.descriptor(), summary);
    drawTimeline(store, summary);
    host::failIfIncomplete(store, options.database);
  }
  return 0;
}

int clear(const ClearOptions& options) {
  auto store = host::openForWriting(options.database);
  const auto records = store.count();
  if (records > 0 && !options.isSure && !hasConsent(options.database, records)) return 0;
  // The reason is said below, in the words of the command.
  runeflow::AppLog::attachSink([](const runeflow::AppLog::Line&) {});
  store.clear();
  if (const auto error = store.takeError()) {
    host::fail("could not clear {}: {}", options.database, error->text);
  }
  say("{} deleted", counted(records, "record"));
  return 0;
}

}  // namespace cli
