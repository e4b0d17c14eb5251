// SPDX-License-Identifier: MIT
#include <nlohmann/json.hpp>

#include "runeflow/store/row_reader_p.h"

namespace runeflow {
namespace {

// Positions in kRecordColumns.
constexpr int kTimestampColumn = 1;
constexpr int kLevelColumn = 2;
constexpr int kFirstSlotColumn = 3;
constexpr int kMessageColumn = 11;  // then ctx

// Returns absence unless the text is a JSON object whose values are all strings.
std::optional<LogRow::Context> parseContext(std::string_view text) {
  const auto document = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (!document.is_object()) return std::nullopt;
  LogRow::Context ctx;
  for (const auto& [key, value] : document.items()) {
    if (!value.is_string()) return std::nullopt;
    ctx.emplace(key, value.get_ref<const std::string&>());
  }
  return ctx;
}

}  // namespace

RowReader::operator LogRow() {
  statement_.readTexts(kFirstSlotColumn, slots_);
  statement_.readTexts(kMessageColumn, messageAndContext_);
  const auto& [message, ctx] = messageAndContext_;
  return {timestampFromMicroseconds(statement_.integer(kTimestampColumn)),
          levelOfStored(statement_.integer(kLevelColumn)), message.value_or(std::string_view()),
          ctx ? parseContext(*ctx) : std::nullopt, slots_};
}

}  // namespace runeflow
