// SPDX-License-Identifier: MIT

#include <algorithm>
#include <cctype>
#include <charconv>

#include "fleet/kinds.h"
#include "fleet/reader.h"
#include "fleet_commands.h"
#include "host/failure.h"
#include "host/record_text.h"
#include "value_list.h"

namespace cli {
namespace {

// Returns the column that the user names, in any case.
std::string columnNamed(const std::string& name) {
  std::string lower(name);
  std::ranges::transform(lower, lower.begin(),
                         [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  std::vector<std::string> columns = {"capture", "kind", "level"};
  columns.insert(columns.end(), fleet::slotFields().begin(), fleet::slotFields().end());
  if (std::ranges::find(columns, lower) == columns.end()) {
    host::fail("there is no field '{}'; the fields are {}", name, fmt::join(columns, ", "));
  }
  return lower;
}

// Replaces the numbers of levels by their names.
void nameLevels(std::vector<runeflow::ValueCount>& values) {
  for (auto& value : values) {
    int raw = 0;
    std::from_chars(value.value.data(), value.value.data() + value.value.size(), raw);
    const auto level = runeflow::levelFromRawValue(raw);
    if (level) value.value = host::levelName(*level);
  }
}

bool hasPrefix(std::string_view name, std::string_view prefix) {
  return std::ranges::equal(name.substr(0, prefix.size()), prefix, [](char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) ==
           std::tolower(static_cast<unsigned char>(b));
  });
}

}  // namespace

int valuesOfFleet(const ValuesOptions& options) {
  fleet::Engine engine(fleet::parseAddress(options.database), fleet::readLogin());
  fleet::Reader reader(engine);
  std::vector<std::string> columns;
  columns.reserve(options.fields.size());
  for (const auto& field : options.fields) columns.push_back(columnNamed(field));
  const auto condition = reader.condition({.text = options.matching});
  bool found = false;
  for (const auto& column : columns) {
    const bool isLevel = column == "level";
    auto values = reader.values(condition, column, isLevel ? "" : options.prefix,
                                isLevel ? -1 : options.limit);
    if (isLevel) {
      nameLevels(values);
      std::erase_if(values,
                    [&](const auto& value) { return !hasPrefix(value.value, options.prefix); });
      const auto limit = static_cast<std::size_t>(options.limit);
      if (options.limit >= 0 && values.size() > limit) values.resize(limit);
    }
    printValues(values, columns.size() > 1 ? column : std::string(), options.isJson);
    found = found || !values.empty();
  }
  return found ? 0 : 1;
}

}  // namespace cli
