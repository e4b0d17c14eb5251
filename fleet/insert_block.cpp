// SPDX-License-Identifier: MIT

#include "fleet/insert_block.h"

#include <fmt/format.h>

#include <iterator>
#include <limits>
#include <utility>

#include "fleet/sql.h"
#include "fleet/table.h"

namespace fleet {

using runeflow::FetchedRow;
using runeflow::SourceDescriptor;
using runeflow::StoreColumn;

namespace {

// The slots that are fields, with their names.
std::vector<std::pair<std::int64_t, std::string>> slotsWithNames(
    const SourceDescriptor& descriptor) {
  std::vector<std::pair<std::int64_t, std::string>> slots;
  for (const auto& field : descriptor.fields()) {
    if (const auto* slot = std::get_if<StoreColumn::Slot>(&field.column().value())) {
      slots.emplace_back(slot->index, field.name());
    }
  }
  return slots;
}

std::int64_t appSlot(const SourceDescriptor& descriptor) {
  const auto column = descriptor.appColumn();
  const auto* slot = std::get_if<StoreColumn::Slot>(&column.value());
  return slot ? slot->index : -1;
}

class RowWriter {
 public:
  RowWriter(const BlockOrigin& origin, const runeflow::WordTokenizer& tokenizer, std::string& json)
      : slots_(slotsWithNames(origin.descriptor)),
        appSlot_(appSlot(origin.descriptor)),
        tokenizer_(tokenizer),
        json_(json) {}

  // `constants` are the members that all rows share, from the opening brace on.
  void write(const std::string& constants, const FetchedRow& record) {
    const auto& row = record.row;
    fmt::format_to(std::back_inserter(json_), R"({},"seq":{},"time":{},"level":{})", constants,
                   record.seq, microsecondsOf(row), runeflow::rawValue(row.level()));
    member("source", row.slot(appSlot_).value_or(std::string_view()));
    for (const auto& [slot, name] : slots_) {
      if (const auto text = row.slot(slot)) member(name, *text);
    }
    member("message", row.message());
    const auto& ctx = row.ctx();
    if (ctx && !ctx->empty()) {
      list("ctx_keys", *ctx, [](const auto& entry) -> const auto& { return entry.first; });
      list("ctx_values", *ctx, [](const auto& entry) -> const auto& { return entry.second; });
    }
    list("words", tokenizer_.words(row.message()),
         [](const auto& word) -> const auto& { return word.folded; });
    json_ += "}\n";
  }

 private:
  void name(std::string_view name) {
    json_ += ",\"";
    json_ += name;
    json_ += "\":";
  }
  void member(std::string_view name, std::string_view text) {
    this->name(name);
    appendJsonString(json_, text);
  }
  void list(std::string_view name, const auto& items, auto textOf) {
    this->name(name);
    char before = '[';
    for (const auto& item : items) {
      json_ += std::exchange(before, ',');
      appendJsonString(json_, textOf(item));
    }
    json_ += before == '[' ? "[]" : "]";
  }

  std::vector<std::pair<std::int64_t, std::string>> slots_;
  std::int64_t appSlot_;
  const runeflow::WordTokenizer& tokenizer_;
  std::string& json_;
};

}  // namespace

std::string insertStatement(const Address& address, const SourceDescriptor& descriptor) {
  std::string fields;
  for (const auto& [slot, name] : slotsWithNames(descriptor)) fields += ", " + sqlName(name);
  return fmt::format(
      "INSERT INTO {} (capture, generation, kind, block, block_end, block_rows, seq, time, level, "
      "source{}, message, ctx_keys, ctx_values, words) FORMAT JSONEachRow",
      tableName(address), fields);
}

InsertBlock makeBlock(const BlockOrigin& origin, std::span<const FetchedRow> records,
                      const runeflow::WordTokenizer& tokenizer) {
  InsertBlock block{.rows = {},
                    .generation = origin.generation,
                    .first = records.front().seq,
                    .last = records.back().seq,
                    .count = static_cast<std::uint32_t>(records.size())};
  std::string constants = "{\"capture\":";
  appendJsonString(constants, origin.capture);
  constants +=
      fmt::format(R"(,"generation":{},"kind":"{}","block":{},"block_end":{},"block_rows":{})",
                  origin.generation, origin.descriptor.id(), block.first, block.last, block.count);
  RowWriter writer(origin, tokenizer, block.rows);
  for (const auto& record : records) writer.write(constants, record);
  return block;
}

void appendJsonString(std::string& json, std::string_view text) {
  json += '"';
  std::size_t plain = 0;  // bytes to copy from there
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte >= 0x20 && byte != '"' && byte != '\\') continue;
    json += text.substr(plain, i - plain);
    fmt::format_to(std::back_inserter(json), "\\u{:04x}", byte);
    plain = i + 1;
  }
  json += text.substr(plain);
  json += '"';
}

std::int64_t microsecondsOf(const runeflow::LogRow& row) {
  constexpr auto kFarthest = std::numeric_limits<std::int64_t>::max();
  const auto nearest = row.timestamp().time_since_epoch().count() > 0 ? kFarthest : -kFarthest;
  return runeflow::microsecondsSinceEpoch(row.timestamp()).value_or(nearest);
}

}  // namespace fleet
