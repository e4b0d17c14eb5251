// SPDX-License-Identifier: MIT
#include "records_json.h"

#include <algorithm>
#include <optional>
#include <variant>

#include "host/record_text.h"
#include "host/terminal_text.h"

namespace viewer {

using runeflow::RecordPreview;
using runeflow::SourceDescriptor;
using runeflow::WordMarks;

namespace {

constexpr std::size_t kFieldCharacters = 200;

std::size_t utf16Units(std::string_view utf8) {
  std::size_t units = 0;
  for (const char c : utf8) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte & 0xC0) != 0x80) units += byte >= 0xF0 ? 2 : 1;
  }
  return units;
}

std::string escapedLines(std::string_view text) {
  std::string safe;
  while (!text.empty()) {
    const auto end = std::min(text.find_first_of("\n\t\r"), text.size());
    safe += host::terminalText(text.substr(0, end));
    text.remove_prefix(end);
    if (text.empty()) break;
    const bool isLineEnd = text.starts_with("\r\n");
    if (text.front() == '\r' && !isLineEnd) {
      safe += "\\r";
    } else {
      safe += isLineEnd ? '\n' : text.front();
    }
    text.remove_prefix(isLineEnd ? 2 : 1);
  }
  return safe;
}

std::string clipped(std::string_view text) {
  std::size_t characters = 0;
  std::size_t end = 0;
  while (end < text.size() && characters < kFieldCharacters) {
    do {
      ++end;
    } while (end < text.size() && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80);
    ++characters;
  }
  auto safe = host::terminalText(text.substr(0, end));
  if (end < text.size()) safe += "…";
  return safe;
}

std::int64_t microseconds(const runeflow::LogRow& row) {
  return runeflow::microsecondsSinceEpoch(row.timestamp()).value_or(0);
}

Json optionalText(const std::optional<std::string>& text) {
  return text ? Json(*text) : Json(nullptr);
}

}  // namespace

SafeText safeText(std::string_view text, std::span<const WordMarks::Range> marks, Lines lines) {
  SafeText safe;
  std::size_t units = 0;
  const auto append = [&](std::string_view piece) {
    const auto escaped = lines == Lines::several ? escapedLines(piece) : host::terminalText(piece);
    units += utf16Units(escaped);
    safe.text += escaped;
  };
  std::size_t at = 0;
  for (const auto& [begin, end] : marks) {
    append(text.substr(at, begin - at));
    const auto markBegin = units;
    append(text.substr(begin, end - begin));
    safe.marks.push_back({markBegin, units});
    at = end;
  }
  append(text.substr(at));
  return safe;
}

std::vector<std::int64_t> slotsOf(const SourceDescriptor& descriptor) {
  std::vector<std::int64_t> slots;
  for (const auto& field : descriptor.fields()) {
    if (const auto* slot = std::get_if<runeflow::StoreColumn::Slot>(&field.column().value())) {
      slots.push_back(slot->index);
    }
  }
  return slots;
}

Json listedRecord(const RecordPreview& record, const SourceDescriptor& descriptor,
                  const WordMarks& marks) {
  auto fields = Json::array();
  for (const auto slot : slotsOf(descriptor)) {
    const auto text = record.row.slot(slot);
    fields.push_back(text ? Json(clipped(*text)) : Json(nullptr));
  }
  auto message = safeText(record.row.message(), marks.in(record.row.message()), Lines::one);
  return {{"seq", record.seq},
          {"time", microseconds(record.row)},
          {"level", runeflow::rawValue(record.row.level())},
          {"fields", std::move(fields)},
          {"text", std::move(message.text)},
          {"length", record.messageCharacters},
          {"marks", std::move(message.marks)}};
}

Json detailedRecord(const RecordPreview& record, const SourceDescriptor& descriptor,
                    const WordMarks& marks) {
  auto fields = Json::array();
  for (const auto& field : descriptor.fields()) {
    const auto* slot = std::get_if<runeflow::StoreColumn::Slot>(&field.column().value());
    if (!slot) continue;
    const auto text = record.row.slot(slot->index);
    fields.push_back(
        {{"name", field.name()},
         {"label", field.label()},
         {"value", optionalText(text ? std::optional(host::terminalText(*text)) : std::nullopt)}});
  }
  Json context = nullptr;
  if (record.row.ctx()) {
    context = Json::object();
    for (const auto& [key, value] : *record.row.ctx()) {
      context[host::terminalText(key)] = host::terminalText(value);
    }
  }
  auto message = safeText(record.row.message(), marks.in(record.row.message()), Lines::several);
  return {{"seq", record.seq},
          {"time", microseconds(record.row)},
          {"microseconds", microseconds(record.row)},
          {"local", host::localTime(record.row.timestamp(), host::TimeDigits::microseconds)},
          {"utc", host::utcTime(record.row.timestamp())},
          {"level", runeflow::rawValue(record.row.level())},
          {"fields", std::move(fields)},
          {"context", std::move(context)},
          {"length", record.messageCharacters},
          {"text", std::move(message.text)},
          {"marks", std::move(message.marks)}};
}

}  // namespace viewer
