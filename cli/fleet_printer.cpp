// SPDX-License-Identifier: MIT

#include "fleet_printer.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "fleet/kinds.h"
#include "host/record_text.h"
#include "host/terminal_text.h"
#include "json_line.h"
#include "terminal.h"

namespace cli {

using fleet::Record;
using runeflow::StoreColumn;

namespace {

constexpr std::size_t kPageRecords = 1'000;
constexpr std::size_t kPageBytes = std::size_t{4} << 20U;
constexpr std::size_t kWidestColumn = 28;

struct Field {
  std::string name;
  std::optional<std::string_view> text;
  bool isInTable;
};

// The fields of the record's kind, without capture, kind and level.
std::vector<Field> fieldsOf(const Record& record) {
  std::vector<Field> fields;
  for (const auto& field : fleet::descriptorOf(record.kind).fields()) {
    const auto column = field.column();
    const auto* slot = std::get_if<StoreColumn::Slot>(&column.value());
    if (!slot || column == fleet::kCaptureColumn || column == fleet::kKindColumn) continue;
    fields.push_back({field.name(), record.row.slot(slot->index), field.inTable()});
  }
  return fields;
}

// The columns of the plain form and of CSV: those of all kinds. A record has only its own.
std::vector<std::string> columnsOfAllKinds(const Record& record) {
  std::vector<std::string> columns = {record.capture,
                                      fmt::format("{}", record.generation),
                                      fmt::format("{}", record.seq),
                                      host::utcTime(record.row.timestamp()),
                                      std::string(host::levelName(record.row.level())),
                                      record.kind};
  const auto fields = fieldsOf(record);
  for (const auto& name : fleet::slotFields()) {
    const auto found = std::ranges::find(fields, name, &Field::name);
    const auto text = found == fields.end() ? std::nullopt : found->text;
    columns.emplace_back(text.value_or(std::string_view()));
  }
  columns.emplace_back(record.row.message());
  return columns;
}

std::string csvHeader() {
  return fmt::format("capture,generation,seq,time,level,kind,{},message",
                     fmt::join(fleet::slotFields(), ","));
}

}  // namespace

FleetPrinter::FleetPrinter(RecordFormat format, bool usesColour, Marked marked, std::FILE* out)
    : format_(format),
      usesColour_(usesColour),
      marked_(std::move(marked)),
      out_(out),
      isGuarded_(isTerminal(stdout)) {
  if (format_ == RecordFormat::csv) fmt::print(out_, "{}\r\n", csvHeader());
}

void FleetPrinter::add(const Record& record) {
  pageBytes_ += record.row.message().size();
  page_.push_back(record);
  if (page_.size() >= kPageRecords || pageBytes_ >= kPageBytes) flush();
}

void FleetPrinter::flush() {
  if (format_ == RecordFormat::people)
    std::ranges::for_each(page_, [this](const Record& record) { fitColumnsTo(record); });
  for (const auto& record : page_) {
    switch (format_) {
      case RecordFormat::people:
        fmt::print(out_, "{}\n", peopleLine(record));
        break;
      case RecordFormat::plain:
        fmt::print(out_, "{}\n", plainLine(record));
        break;
      case RecordFormat::json:
        fmt::print(out_, "{}\n", jsonLine(record));
        break;
      case RecordFormat::csv:
        fmt::print(out_, "{}\r\n", csvLine(record));
        break;
    }
  }
  page_.clear();
  pageBytes_ = 0;
}

// Columns never become narrower, so that the lines of all pages are aligned.
void FleetPrinter::fitColumnsTo(const Record& record) {
  const auto widen = [this](const std::string& name, std::string_view text) {
    auto& width = widths_[name];
    width = std::min(kWidestColumn, std::max(width, columnsOf(host::terminalField(text))));
  };
  widen("capture", record.capture);
  for (const auto& field : fieldsOf(record)) {
    widen(field.name, field.text.value_or(std::string_view()));
  }
}

std::string FleetPrinter::peopleLine(const Record& record) const {
  const auto paint = [this](std::string_view code) {
    return usesColour_ ? code : std::string_view();
  };
  const auto level = record.row.level();
  std::string line =
      fmt::format("{}{}{} {}{}{}", paint(colour::kFaint), host::localTime(record.row.timestamp()),
                  paint(colour::kReset), paint(levelColour(level)),
                  host::levelName(level).substr(0, 1), paint(colour::kReset));
  const auto append = [&](const std::string& name, std::string_view text) {
    const auto width = widths_.at(name);
    if (width > 0) line += ' ' + fitted(host::terminalField(text), width);
  };
  append("capture", record.capture);
  for (const auto& field : fieldsOf(record)) {
    if (field.isInTable) append(field.name, field.text.value_or(std::string_view()));
  }
  return line + "  " + marked_(record.row.message());
}

std::string FleetPrinter::plainLine(const Record& record) const {
  std::string line;
  for (const auto& column : columnsOfAllKinds(record)) {
    if (!line.empty()) line += '\t';
    line += host::terminalField(column);
  }
  return line;
}

std::string FleetPrinter::csvLine(const Record& record) const {
  std::string line;
  for (const auto& column : columnsOfAllKinds(record)) {
    if (!line.empty()) line += ',';
    line += csvField(isGuarded_ ? host::terminalField(column) : column);
  }
  return line;
}

std::string FleetPrinter::jsonLine(const Record& record) const {
  nlohmann::ordered_json object;
  object["capture"] = record.capture;
  object["generation"] = record.generation;
  object["seq"] = record.seq;
  object["time"] = host::utcTime(record.row.timestamp());
  object["level"] = host::levelName(record.row.level());
  object["kind"] = record.kind;
  for (const auto& field : fieldsOf(record)) {
    object[field.name] =
        field.text ? nlohmann::ordered_json(*field.text) : nlohmann::ordered_json(nullptr);
  }
  object["message"] = record.row.message();
  if (record.row.ctx()) object["ctx"] = *record.row.ctx();
  return cli::jsonLine(object, isGuarded_);
}

}  // namespace cli
