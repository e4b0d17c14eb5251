// SPDX-License-Identifier: MIT

#include "fleet/insert_block.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <tuple>
#include <utility>

#include "fleet/row_binary.h"
#include "fleet/sql.h"
#include "fleet/table.h"

namespace fleet {

using runeflow::FetchedRow;
using runeflow::LogRow;
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

}  // namespace

std::string insertStatement(const Address& address, const SourceDescriptor& descriptor) {
  std::string fields;
  for (const auto& [slot, name] : slotsWithNames(descriptor)) fields += ", " + sqlName(name);
  return fmt::format(
      "INSERT INTO {} (capture, generation, kind, block, block_end, block_rows, seq, time, level, "
      "source{}, message, ctx_keys, ctx_values, words) FORMAT RowBinary",
      tableName(address), fields);
}

BlockBuilder::BlockBuilder(const BlockOrigin& origin, const runeflow::WordTokenizer& tokenizer)
    : tokenizer_(tokenizer), appSlot_(appSlot(origin.descriptor)) {
  for (const auto& [slot, name] : slotsWithNames(origin.descriptor)) slots_.push_back(slot);
  block_.generation = origin.generation;
  appendText(origin_, origin.capture);
  appendInteger(origin_, origin.generation);
  appendText(origin_, origin.descriptor.id());
}

void BlockBuilder::add(const FetchedRow& record) {
  const auto& row = record.row;
  auto& bytes = block_.rows;
  reserveFor(row.message().size());
  if (block_.count++ == 0) block_.first = record.seq;
  block_.last = record.seq;
  Place place{.begin = bytes.size(), .time = microsecondsOf(row)};
  bytes += origin_;
  bytes += extent();
  appendInteger(bytes, record.seq);
  appendInteger(bytes, place.time);
  appendInteger(bytes, static_cast<std::uint8_t>(runeflow::rawValue(row.level())));
  const auto source = row.slot(appSlot_).value_or(std::string_view());
  appendText(bytes, source);
  place.source = bytes.size() - source.size();
  place.sourceSize = source.size();
  for (const auto slot : slots_) appendNullableText(bytes, row.slot(slot));
  appendText(bytes, row.message());
  addContext(row.ctx());
  addWords(row.message());
  place.size = bytes.size() - place.begin;
  places_.push_back(place);
}

// The words of a message take about as much as the message. With an estimate, a large block does
// not grow by doubling.
void BlockBuilder::reserveFor(std::size_t message) {
  constexpr std::size_t kLarge = 65'536;
  if (message >= kLarge) block_.rows.reserve(block_.rows.size() + 2 * message + kLarge);
}

// The end and the number of records are not known before finish(), which writes each extent anew.
std::string BlockBuilder::extent() const {
  std::string bytes;
  appendInteger(bytes, block_.first);
  appendInteger(bytes, block_.last);
  appendInteger(bytes, block_.count);
  return bytes;
}

void BlockBuilder::addContext(const std::optional<LogRow::Context>& context) {
  appendLength(block_.rows, context ? context->size() : 0);
  if (context) {
    for (const auto& [key, value] : *context) appendText(block_.rows, key);
  }
  appendLength(block_.rows, context ? context->size() : 0);
  if (context) {
    for (const auto& [key, value] : *context) appendText(block_.rows, value);
  }
}

void BlockBuilder::addWords(std::string_view message) {
  auto& bytes = block_.rows;
  const auto begin = bytes.size();
  std::uint64_t words = 0;
  tokenizer_.forEachWord(message, [&](std::string_view word) {
    appendText(bytes, word);
    ++words;
  });
  std::string number;
  appendLength(number, words);
  bytes.insert(begin, number);
}

InsertBlock BlockBuilder::finish() {
  const auto bytes = extent();
  for (const auto& place : places_) {
    block_.rows.replace(place.begin + origin_.size(), bytes.size(), bytes);
  }
  sortRows();
  return std::move(block_);
}

// As the ORDER BY of the table, whose capture and generation are the same in all rows here.
bool BlockBuilder::isBefore(const Place& a, const Place& b) const {
  const auto key = [&](const Place& place) {
    return std::tuple(place.time / kMicrosecondsPerHour,
                      std::string_view(block_.rows).substr(place.source, place.sourceSize),
                      place.time, place.begin);
  };
  return key(a) < key(b);
}

void BlockBuilder::sortRows() {
  const auto before = [this](const Place& a, const Place& b) { return isBefore(a, b); };
  if (std::ranges::is_sorted(places_, before)) return;
  std::ranges::sort(places_, before);
  std::string sorted;
  sorted.reserve(block_.rows.size());
  for (const auto& place : places_) sorted.append(block_.rows, place.begin, place.size);
  block_.rows = std::move(sorted);
}

std::int64_t microsecondsOf(const runeflow::LogRow& row) {
  constexpr auto kFarthest = std::numeric_limits<std::int64_t>::max();
  const auto nearest = row.timestamp().time_since_epoch().count() > 0 ? kFarthest : -kFarthest;
  return runeflow::microsecondsSinceEpoch(row.timestamp()).value_or(nearest);
}

}  // namespace fleet
