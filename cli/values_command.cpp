// SPDX-License-Identifier: MIT
#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <nlohmann/json.hpp>
#include <optional>
#include <tuple>

#include "commands.h"
#include "fleet_commands.h"
#include "host/database.h"
#include "host/record_text.h"
#include "host/terminal_text.h"
#include "json_line.h"
#include "level_counts.h"
#include "query_hints.h"
#include "runeflow/query/query_parser.h"
#include "terminal.h"
#include "value_list.h"

namespace cli {

using runeflow::EventStore;
using runeflow::LogQuery;
using runeflow::ValueCount;

namespace {

constexpr std::size_t kWidestValue = 40;

std::vector<ValueCount> slotValues(EventStore& store, const runeflow::StoreColumn& column,
                                   const LogQuery& matching, const ValuesOptions& options) {
  const auto condition = matching.isEmpty() ? std::nullopt : std::optional(matching);
  const auto prefix = options.prefix.empty() ? std::nullopt : std::optional(options.prefix);
  return store.distinctValuesWithCounts(column, condition, prefix, options.limit);
}

bool isSameLetter(char a, char b) {
  return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
}

std::vector<ValueCount> levelValues(EventStore& store, const LogQuery& matching,
                                    const ValuesOptions& options) {
  std::vector<ValueCount> counted;
  for (const auto& [level, count] : countLevels(store, matching)) {
    const auto name = host::levelName(level);
    const bool hasPrefix =
        std::ranges::equal(name.substr(0, options.prefix.size()), options.prefix, isSameLetter);
    if (count > 0 && hasPrefix) counted.push_back({std::string(name), count});
  }
  std::ranges::sort(counted, [](const ValueCount& a, const ValueCount& b) {
    return std::tie(b.count, a.value) < std::tie(a.count, b.value);
  });
  if (options.limit >= 0 && counted.size() > static_cast<std::size_t>(options.limit)) {
    counted.resize(static_cast<std::size_t>(options.limit));
  }
  return counted;
}

}  // namespace

void printValues(const std::vector<ValueCount>& values, std::string_view field, bool isJson) {
  const bool isTable = !isJson && isForPeople();
  std::size_t width = 0;
  for (const auto& value : values)
    width = std::max(width, columnsOf(host::terminalField(value.value)));
  width = std::min(width, kWidestValue);
  if (isTable && !field.empty()) fmt::print("{}\n", host::terminalField(field));
  for (const auto& [value, count] : values) {
    if (isJson) {
      nlohmann::ordered_json object;
      if (!field.empty()) object["field"] = field;
      object["value"] = value;
      object["count"] = count;
      fmt::print("{}\n", jsonLine(object, isTerminal(stdout)));
    } else if (isTable) {
      constexpr std::size_t kCountColumns = 13;  // the count and the blanks around it
      fmt::print("{}  {:>9}  {}\n", fitted(host::terminalField(value), width), count,
                 bar(count, values.front().count, barColumns(width + kCountColumns)));
    } else {
      if (!field.empty()) fmt::print("{}\t", host::terminalField(field));
      fmt::print("{}\t{}\n", host::terminalField(value), count);
    }
  }
}

int values(const ValuesOptions& options) {
  if (isFleet(options.database)) return valuesOfFleet(options);
  auto store = host::openDatabase(options.database, options.source);
  std::vector<const runeflow::FieldDescriptor*> fields;
  fields.reserve(options.fields.size());
  for (const auto& name : options.fields) {
    fields.push_back(&host::fieldNamed(store.descriptor(), name));
  }
  const auto matching = runeflow::QueryParser::parse(options.matching, store.descriptor(), false);
  host::failIfRefused(store, matching, options.database);
  bool found = false;
  for (const auto* field : fields) {
    const bool isLevel = field->column() == runeflow::StoreColumn::level();
    const auto counted = isLevel ? levelValues(store, matching, options)
                                 : slotValues(store, field->column(), matching, options);
    host::failIfIncomplete(store, options.database);
    printValues(counted, fields.size() > 1 ? field->name() : std::string(), options.isJson);
    found = found || !counted.empty();
  }
  if (found) return 0;
  hintAt(store, options.matching, matching);
  return 1;
}

}  // namespace cli
