// SPDX-License-Identifier: MIT

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include "fleet/reader.h"
#include "fleet_commands.h"
#include "host/record_text.h"
#include "json_line.h"
#include "output.h"
#include "terminal.h"

namespace cli {

using fleet::CaptureSummary;

namespace {

constexpr int kLabelColumns = 24;              // before a bar
constexpr std::int64_t kMostCaptures = 1'000;  // that are listed for people

using Levels = std::array<std::int64_t, 6>;  // by raw value

// Seqs between the first and the last that are not there: the size cap deleted their records before
// they were sent.
std::int64_t missing(const CaptureSummary& capture) {
  return capture.lastSeq - capture.firstSeq + 1 - capture.records;
}

std::string utc(std::int64_t microseconds) {
  return host::utcTime(runeflow::timestampFromMicroseconds(microseconds));
}

std::string local(std::int64_t microseconds) {
  return host::localTime(runeflow::timestampFromMicroseconds(microseconds));
}

Levels levelsOf(fleet::Reader& reader) {
  Levels levels{};
  for (const auto& [value, count] : reader.values("1", "level", "", -1)) {
    const auto raw = static_cast<std::size_t>(value.front() - '0');
    if (value.size() == 1 && raw < levels.size()) levels[raw] = count;
  }
  return levels;
}

std::string_view nameOf(std::size_t raw) {
  return host::levelName(static_cast<runeflow::RuneflowLogLevel>(raw));
}

void printJson(const std::string& table, const std::vector<CaptureSummary>& captures,
               const Levels& levels) {
  nlohmann::ordered_json object;
  object["table"] = table;
  object["captures"] = nlohmann::ordered_json::array();
  std::int64_t records = 0;
  for (const auto& capture : captures) {
    records += capture.records;
    object["captures"].push_back({{"capture", capture.capture},
                                  {"generation", capture.generation},
                                  {"kind", capture.kind},
                                  {"records", capture.records},
                                  {"missing", missing(capture)},
                                  {"firstSeq", capture.firstSeq},
                                  {"lastSeq", capture.lastSeq},
                                  {"firstTime", utc(capture.firstTime)},
                                  {"lastTime", utc(capture.lastTime)}});
  }
  object["records"] = records;
  for (std::size_t raw = 0; raw < levels.size(); ++raw) {
    object["levels"][std::string(nameOf(raw))] = levels[raw];
  }
  fmt::print("{}\n", jsonLine(object, isTerminal(stdout)));
}

void printText(const std::string& table, const std::vector<CaptureSummary>& captures,
               const Levels& levels) {
  std::int64_t records = 0;
  for (const auto& capture : captures) records += capture.records;
  printLine("{}: {}", table, counted(records, "record"));
  const auto most = std::ranges::max(levels);
  for (std::size_t raw = 0; raw < levels.size(); ++raw) {
    printLine("  {:<10} {:>9}  {}", nameOf(raw), levels[raw],
              bar(levels[raw], most, barColumns(kLabelColumns)));
  }
  for (const auto& capture : captures) {
    printLine("{} (generation {}): {} records", capture.capture, capture.generation, capture.kind);
    printLine("  records     {}", capture.records);
    printLine("  seq         {} to {}", capture.firstSeq, capture.lastSeq);
    if (missing(capture) > 0) printLine("  missing     {}", missing(capture));
    printLine("  time        {} to {}", local(capture.firstTime), local(capture.lastTime));
  }
}

}  // namespace

int infoOfFleet(const InfoOptions& options) {
  const auto address = fleet::parseAddress(options.database);
  fleet::Engine engine(address, fleet::readLogin());
  fleet::Reader reader(engine);
  const auto captures = reader.captures(kMostCaptures);
  const auto levels = levelsOf(reader);
  if (options.isJson) {
    printJson(address.text(), captures, levels);
  } else {
    printText(address.text(), captures, levels);
  }
  return 0;
}

}  // namespace cli
