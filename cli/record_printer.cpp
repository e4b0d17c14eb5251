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
constexpr std::size_t kNarrowColumn = 16;  // the widest on a narrow terminal
constexpr std::size_t kNarrowTerminal = 100;
constexpr std::size_t kFewestMessageColumns = 24;
constexpr std::size_t kShallowIndent = 4;

std::optional<std::string_view> slotText(const FetchedRow& record,
                                         std::optional<std::int64_t> slot) {
  return slot ? record.row.slot(*slot) : std::nullopt;
}

}  // namespace

std::string_view levelColour(RuneflowLogLevel level) {
  switch (level) {
    case RuneflowLogLevel::Trace:
      return colour::kFaint;
    case RuneflowLogLevel::Debug:
      return colour::kBlue;
    case RuneflowLogLevel::Info:
      return colour::kGreen;
    case RuneflowLogLevel::Warning:
      return colour::kOnOrange;
    case RuneflowLogLevel::Error:
      return colour::kOnRed;
    case RuneflowLogLevel::Fatal:
      return colour::kOnPurple;
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

RecordPrinter::RecordPrinter(std::vector<RecordSource> sources, RecordStyle style, std::FILE* out)
    : sources_(std::move(sources)),
      style_(style),
      out_(out),
      isGuarded_(isTerminal(stdout)),
      width_(wrapWidth()) {
  for (std::size_t i = 0; i < sources_.size(); ++i) addColumns(i);
  if (style_.format == RecordFormat::csv) fmt::print(out_, "{}\r\n", csvHeader());
}

void RecordPrinter::addColumns(std::size_t source) {
  nameWidth_ = std::min(
      kWidestColumn, std::max(nameWidth_, columnsOf(host::terminalField(sources_[source].name))));
  for (const auto& field : sources_[source].descriptor.fields()) {
    const auto* slot = std::get_if<runeflow::StoreColumn::Slot>(&field.column().value());
    if (!slot) continue;
    auto column = std::ranges::find(columns_, field.name(), &Column::name);
    if (column == columns_.end()) {
      columns_.push_back({.name = field.name(), .slots = {}});
      column = columns_.end() - 1;
      column->slots.resize(sources_.size());
    }
    column->isInTable = column->isInTable || field.inTable();
    column->slots[source] = slot->index;
  }
}

void RecordPrinter::print(std::span<const FetchedRow> records, std::size_t source) {
  printAs(records, source, [](const FetchedRow&) { return true; });
}

void RecordPrinter::print(std::span<const FetchedRow> records,
                          std::span<const std::int64_t> matches) {
  printAs(records, 0, [matches](const FetchedRow& record) {
    return std::ranges::binary_search(matches, record.seq);
  });
}

void RecordPrinter::separate() {
  const bool isForReading =
      style_.format == RecordFormat::people || style_.format == RecordFormat::plain;
  if (isForReading) fmt::print(out_, "--\n");
}

void RecordPrinter::sayZone() {
  hasSaidZone_ = true;
  const auto zone = host::localZone();
  if (style_.usesColour) {
    fmt::print(out_, "{}times: {}{}\n", colour::kFaint, zone, colour::kReset);
  } else {
    fmt::print(out_, "times: {}\n", zone);
  }
}

template <class IsMatch>
void RecordPrinter::printAs(std::span<const FetchedRow> records, std::size_t source,
                            const IsMatch& isMatch) {
  if (style_.format == RecordFormat::people && !records.empty()) {
    fitColumnsTo(records, source);
    if (!hasSaidZone_) sayZone();
  }
  for (const auto& record : records) {
    switch (style_.format) {
      case RecordFormat::people:
        fmt::print(out_, "{}\n", peopleLine(record, source, isMatch(record)));
        break;
      case RecordFormat::plain:
        fmt::print(out_, "{}\n", plainLine(record, source, isMatch(record)));
        break;
      case RecordFormat::json:
        fmt::print(out_, "{}\n", jsonLine(record, source, isMatch(record)));
        break;
      case RecordFormat::csv:
        fmt::print(out_, "{}\r\n", csvLine(record, source, isMatch(record)));
        break;
    }
  }
}

// Widens the columns to the longest texts. Columns never become narrower, so that the lines of all
// pages are aligned.
void RecordPrinter::fitColumnsTo(std::span<const FetchedRow> records, std::size_t source) {
  const bool isNarrow = width_ && *width_ < kNarrowTerminal;
  const auto widest = isNarrow ? kNarrowColumn : kWidestColumn;
  for (auto& column : columns_) {
    for (const auto& record : records) {
      const auto text = slotText(record, column.slots[source]).value_or(std::string_view());
      column.width = std::min(widest, std::max(column.width, columnsOf(host::terminalField(text))));
    }
  }
  for (const auto& record : records) {
    seqWidth_ = std::max(seqWidth_, std::to_string(record.seq).size());
  }
}

std::string RecordPrinter::peopleLine(const FetchedRow& record, std::size_t source,
                                      bool isMatch) const {
  const bool isFaint = style_.hasContext && !isMatch;
  const auto paint = [this, isFaint](std::string_view code) {
    return style_.usesColour && !isFaint ? code : std::string_view();
  };
  std::string line;
  if (style_.hasContext) line += isMatch ? "> " : "  ";
  if (style_.showsSeq) line += fmt::format("{:>{}} ", record.seq, seqWidth_);
  const auto level = record.row.level();
  line +=
      fmt::format("{}{}{} {}{}{}", paint(colour::kFaint), host::localTime(record.row.timestamp()),
                  paint(colour::kReset), paint(levelColour(level)),
                  host::levelName(level).substr(0, 1), paint(colour::kReset));
  const auto append = [&line](std::string_view text, std::size_t width) {
    line += ' ' + fitted(host::terminalField(text), width);
  };
  if (hasSeveral()) append(sources_[source].name, nameWidth_);
  for (const auto& column : columns_) {
    if (!column.isInTable || column.width == 0) continue;
    append(slotText(record, column.slots[source]).value_or(std::string_view()), column.width);
  }
  line += "  ";
  auto text = message(record, source, isMatch);
  if (width_) {
    const auto begin = columnsOf(line);
    const bool isRoomy = begin + kFewestMessageColumns <= *width_;
    text = host::wrapped(text, begin, isRoomy ? begin : kShallowIndent, *width_);
  }
  line += text;
  if (isFaint && style_.usesColour) {
    line = fmt::format("{}{}{}", colour::kFaint, line, colour::kReset);
  }
  return line;
}

std::string RecordPrinter::message(const FetchedRow& record, std::size_t source,
                                   bool isMatch) const {
  const auto text = record.row.message();
  const bool isMarked = isMatch || !style_.hasContext;
  if (!style_.usesColour || !isMarked) return host::terminalField(text);
  std::string line;
  std::size_t done = 0;
  for (const auto& [begin, end] : sources_[source].marks.in(text)) {
    line += host::terminalField(text.substr(done, begin - done));
    line += fmt::format("{}{}{}", colour::kHighlight,
                        host::terminalField(text.substr(begin, end - begin)), colour::kReset);
    done = end;
  }
  return line + host::terminalField(text.substr(done));
}

std::string RecordPrinter::plainLine(const FetchedRow& record, std::size_t source,
                                     bool isMatch) const {
  const std::string_view mark = style_.hasContext ? (isMatch ? ">\t" : "-\t") : "";
  if (!hasSeveral()) {
    return fmt::format("{}{}", mark, host::plainLine(record, sources_[source].descriptor));
  }
  auto line =
      fmt::format("{}\t{}\t{}\t{}", host::terminalField(sources_[source].name), record.seq,
                  host::utcTime(record.row.timestamp()), host::levelName(record.row.level()));
  for (const auto& column : columns_) {
    const auto text = slotText(record, column.slots[source]);
    line += '\t' + host::terminalField(text.value_or(std::string_view()));
  }
  return line + '\t' + host::terminalField(record.row.message());
}

std::string RecordPrinter::jsonLine(const FetchedRow& record, std::size_t source,
                                    bool isMatch) const {
  nlohmann::ordered_json object;
  if (hasSeveral()) object["database"] = sources_[source].name;
  object["seq"] = record.seq;
  if (style_.hasContext) object["match"] = isMatch;
  object["time"] = host::utcTime(record.row.timestamp());
  object["level"] = host::levelName(record.row.level());
  for (const auto& column : columns_) {
    if (!column.slots[source]) continue;
    const auto text = slotText(record, column.slots[source]);
    object[column.name] = text ? nlohmann::ordered_json(*text) : nlohmann::ordered_json(nullptr);
  }
  object["message"] = record.row.message();
  if (record.row.ctx()) object["ctx"] = *record.row.ctx();
  return cli::jsonLine(object, isGuarded_);
}

std::string RecordPrinter::csvHeader() const {
  std::string line = hasSeveral() ? "database,seq" : "seq";
  line += style_.hasContext ? ",match,time,level" : ",time,level";
  for (const auto& column : columns_) line += ',' + csvField(column.name);
  return line + ",message";
}

std::string RecordPrinter::csvLine(const FetchedRow& record, std::size_t source,
                                   bool isMatch) const {
  const auto field = [this](std::string_view text) {
    return isGuarded_ ? csvField(host::terminalField(text)) : csvField(text);
  };
  std::string line = hasSeveral() ? field(sources_[source].name) + ',' : "";
  line += std::to_string(record.seq);
  if (style_.hasContext) line += isMatch ? ",true" : ",false";
  line += fmt::format(",{},{}", host::utcTime(record.row.timestamp()),
                      host::levelName(record.row.level()));
  for (const auto& column : columns_) {
    line += ',' + field(slotText(record, column.slots[source]).value_or(std::string_view()));
  }
  return line + ',' + field(record.row.message());
}

}  // namespace cli
