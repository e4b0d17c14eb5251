// SPDX-License-Identifier: MIT
#include "record_printer.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <utility>

#include "host/record_text.h"
#include "host/terminal_text.h"
#include "json_line.h"
#include "terminal.h"

namespace cli {

using runeflow::FetchedRow;
using runeflow::RuneflowLogLevel;

namespace {

constexpr std::size_t kWidestColumn = 28;

std::string_view slotText(const FetchedRow& record, std::int64_t slot) {
  return record.row.slot(slot).value_or(std::string_view());
}

}  // namespace

std::string_view levelColour(RuneflowLogLevel level) {
  switch (level) {
    case RuneflowLogLevel::Trace:
      return colour::kDim;
    case RuneflowLogLevel::Debug:
      return colour::kBlue;
    case RuneflowLogLevel::Info:
      return colour::kGreen;
    case RuneflowLogLevel::Warning:
      return colour::kYellow;
    case RuneflowLogLevel::Error:
    case RuneflowLogLevel::Fatal:
      return colour::kRed;
  }
  return {};
}

std::string csvField(std::string_view text) {
  if (text.find_first_of("\",\r\n") == std::string_view::npos) return std::string(text);
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"') quoted += '"';
    quoted += c;
  }
  return quoted + '"';
}

RecordPrinter::RecordPrinter(const runeflow::SourceDescriptor& descriptor, RecordStyle style,
                             host::MessageMarks marks, std::FILE* out)
    : descriptor_(descriptor),
      style_(style),
      marks_(std::move(marks)),
      out_(out),
      isGuarded_(isTerminal(stdout)) {
  for (const auto& field : descriptor.fields()) {
    if (const auto* slot = std::get_if<runeflow::StoreColumn::Slot>(&field.column().value())) {
      columns_.push_back({field.name(), slot->index, field.inTable()});
    }
  }
  if (style_.format == RecordFormat::csv) fmt::print(out_, "{}\r\n", csvHeader());
}

void RecordPrinter::print(std::span<const FetchedRow> records) {
  printAs(records, [](const FetchedRow&) { return true; });
}

void RecordPrinter::print(std::span<const FetchedRow> records,
                          std::span<const std::int64_t> matches) {
  printAs(records, [matches](const FetchedRow& record) {
    return std::ranges::binary_search(matches, record.seq);
  });
}

void RecordPrinter::separate() {
  const bool isForReading =
      style_.format == RecordFormat::people || style_.format == RecordFormat::plain;
  if (isForReading) fmt::print(out_, "--\n");
}

template <class IsMatch>
void RecordPrinter::printAs(std::span<const FetchedRow> records, const IsMatch& isMatch) {
  if (style_.format == RecordFormat::people) fitColumnsTo(records);
  for (const auto& record : records) {
    switch (style_.format) {
      case RecordFormat::people:
        fmt::print(out_, "{}\n", peopleLine(record, isMatch(record)));
        break;
      case RecordFormat::plain:
        fmt::print(out_, "{}\n", plainLine(record, isMatch(record)));
        break;
      case RecordFormat::json:
        fmt::print(out_, "{}\n", jsonLine(record, isMatch(record)));
        break;
      case RecordFormat::csv:
        fmt::print(out_, "{}\r\n", csvLine(record, isMatch(record)));
        break;
    }
  }
}

// Widens the columns to the longest texts. Columns never become narrower, so that the lines of all
// pages are aligned.
void RecordPrinter::fitColumnsTo(std::span<const FetchedRow> records) {
  for (auto& column : columns_) {
    for (const auto& record : records) {
      const auto taken = columnsOf(host::terminalField(slotText(record, column.slot)));
      column.width = std::min(kWidestColumn, std::max(column.width, taken));
    }
  }
}

std::string RecordPrinter::peopleLine(const FetchedRow& record, bool isMatch) const {
  const bool isDim = style_.hasContext && !isMatch;
  const auto paint = [this, isDim](std::string_view code) {
    return style_.usesColour && !isDim ? code : std::string_view();
  };
  const auto level = record.row.level();
  std::string line = fmt::format(
      "{}{}{}{} {}{}{}", style_.hasContext ? (isMatch ? "> " : "  ") : "", paint(colour::kDim),
      host::localTime(record.row.timestamp()), paint(colour::kReset), paint(levelColour(level)),
      host::levelName(level).substr(0, 1), paint(colour::kReset));
  for (const auto& column : columns_) {
    if (!column.isInTable || column.width == 0) continue;
    line += ' ' + fitted(host::terminalField(slotText(record, column.slot)), column.width);
  }
  line += "  ";
  line += isDim ? host::terminalField(record.row.message()) : highlighted(record.row.message());
  if (isDim && style_.usesColour) line = fmt::format("{}{}{}", colour::kDim, line, colour::kReset);
  return line;
}

std::string RecordPrinter::highlighted(std::string_view message) const {
  if (!style_.usesColour) return host::terminalField(message);
  std::string line;
  std::size_t done = 0;
  for (const auto& [begin, end] : marks_.in(message)) {
    line += host::terminalField(message.substr(done, begin - done));
    line += fmt::format("{}{}{}", colour::kHighlight,
                        host::terminalField(message.substr(begin, end - begin)), colour::kReset);
    done = end;
  }
  return line + host::terminalField(message.substr(done));
}

std::string RecordPrinter::plainLine(const FetchedRow& record, bool isMatch) const {
  const std::string_view mark = style_.hasContext ? (isMatch ? ">\t" : "-\t") : "";
  return fmt::format("{}{}", mark, host::plainLine(record, descriptor_));
}

std::string RecordPrinter::jsonLine(const FetchedRow& record, bool isMatch) const {
  nlohmann::ordered_json object;
  object["seq"] = record.seq;
  if (style_.hasContext) object["match"] = isMatch;
  object["time"] = host::utcTime(record.row.timestamp());
  object["level"] = host::levelName(record.row.level());
  for (const auto& column : columns_) {
    const auto text = record.row.slot(column.slot);
    object[column.name] = text ? nlohmann::ordered_json(*text) : nlohmann::ordered_json(nullptr);
  }
  object["message"] = record.row.message();
  if (record.row.ctx()) object["ctx"] = *record.row.ctx();
  return cli::jsonLine(object, isGuarded_);
}

std::string RecordPrinter::csvHeader() const {
  std::string line = style_.hasContext ? "seq,match,time,level" : "seq,time,level";
  for (const auto& column : columns_) line += ',' + csvField(column.name);
  return line + ",message";
}

std::string RecordPrinter::csvLine(const FetchedRow& record, bool isMatch) const {
  std::string line = std::to_string(record.seq);
  if (style_.hasContext) line += isMatch ? ",true" : ",false";
  line += fmt::format(",{},{}", host::utcTime(record.row.timestamp()),
                      host::levelName(record.row.level()));
  const auto append = [&](std::string_view text) {
    line += ',' + (isGuarded_ ? csvField(host::terminalField(text)) : csvField(text));
  };
  for (const auto& column : columns_) append(slotText(record, column.slot));
  append(record.row.message());
  return line;
}

}  // namespace cli
