// SPDX-License-Identifier: MIT

// Reads records from the rows of a statement.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

#include "runeflow/model/log_row.h"
#include "runeflow/store/sqlite_p.h"

namespace runeflow {

// A statement that a RowReader reads selects these columns in this order, or expressions in their
// place; "{}" stands for the message.
inline constexpr const char* kRecordColumns = "seq,ts,level,s0,s1,s2,s3,s4,s5,s6,s7,{},ctx";
inline constexpr int kColumnsOfRecord = 13;

// Lists reserve space for at most so many records.
inline constexpr std::int64_t kMostRowsReserved = 4096;

// Converts to a LogRow: the record of the statement's current row. Because the conversion happens
// inside emplace_back(), the record is constructed in its place in the list, which takes less time
// than moving it there. The views are members because constructing them for every row takes longer.
class RowReader {
 public:
  explicit RowReader(const Statement& statement) : statement_(statement) {}

  operator LogRow();

 private:
  const Statement& statement_;
  LogRow::Slots slots_;
  std::array<std::optional<std::string_view>, 2> messageAndContext_;
};

// Returns the level that a stored number stands for. Only the low 32 bits count. Any number other
// than 0 to 5 is Info.
inline RuneflowLogLevel levelOfStored(std::int64_t number) {
  return levelFromRawValue(static_cast<std::int32_t>(number)).value_or(RuneflowLogLevel::Info);
}

}  // namespace runeflow
