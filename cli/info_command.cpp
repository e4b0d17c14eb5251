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
  std::optional<runeflow::Timestamp> firstTime;
  std::optional<runeflow::Timestamp> lastTime;
  LevelCounts levels;
};

std::optional<runeflow::Timestamp> timeOf(EventStore& store, std::int64_t seq) {
  const auto records = store.fetchRange(seq, seq);
  if (records.empty()) return std::nullopt;
  return records.front().row.timestamp();
}

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
                  timeOf(store, first),
                  timeOf(store, last),
                  countLevels(store, {})};
  if (attempts <= 1 || !moment->isDisturbed()) return summary;
  moment.reset();
  store.takeError();  // a file that changes under the reads may look damaged
  return summarise(store, path, attempts - 1);
}

void printJson(const std::string& path, const Summary& summary) {
  nlohmann::ordered_json object;
  const auto time = [](const auto& t) {
    return t ? nlohmann::ordered_json(host::utcTime(*t)) : nlohmann::ordered_json(nullptr);
  };
  object["database"] = path;
  object["source"] = summary.kind;
  object["records"] = summary.records;
  object["firstSeq"] = summary.firstSeq;
  object["lastSeq"] = summary.lastSeq;
  object["firstTime"] = time(summary.firstTime);
  object["lastTime"] = time(summary.lastTime);
  for (const auto& [level, count] : summary.levels)
    object["levels"][std::string(host::levelName(level))] = count;
  object["usedBytes"] = summary.usedBytes;
  object["indexes"] = summary.info.indexes;
  object["fullText"] = summary.info.hasFullText;
  fmt::print("{}\n", jsonLine(object, isTerminal(stdout)));
}

void printText(const std::string& path, const runeflow::SourceDescriptor& descriptor,
               const Summary& summary) {
  const auto time = [](const auto& t) { return t ? host::localTime(*t) : std::string("-"); };
  printLine("{}: {} records", path, descriptor.displayName());
  printLine("  records     {}", summary.records);
  printLine("  seq         {} to {}", summary.firstSeq, summary.lastSeq);
  printLine("  time        {} to {}", time(summary.firstTime), time(summary.lastTime));
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

bool hasConsent(const std::string& path, std::int64_t records) {
  if (::isatty(STDIN_FILENO) != 1)
    host::fail("clearing {} needs --yes when nobody can be asked", path);
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
