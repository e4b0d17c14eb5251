// SPDX-License-Identifier: MIT
#include "host/record_key.h"

#include <fmt/format.h>

namespace host {

using runeflow::LogRow;

bool isRawRow(const LogRow& row) {
  return !row.slot(0);
}

std::string recordKey(const LogRow& row) {
  if (isRawRow(row)) return std::string(row.message());
  const auto time = runeflow::microsecondsSinceEpoch(row.timestamp()).value_or(0);
  auto key = fmt::format("{}\n{}", time, runeflow::rawValue(row.level()));
  for (const auto& slot : row.slots()) key += fmt::format("\n{}", slot.value_or("\n"));
  return key += fmt::format("\n{}", row.message());
}

}  // namespace host
