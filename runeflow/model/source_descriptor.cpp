// SPDX-License-Identifier: MIT
#include "runeflow/model/source_descriptor.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <unordered_map>

#include "runeflow/platform/overloaded_p.h"
#include "runeflow/platform/unicode_p.h"

namespace runeflow {
namespace {

std::vector<FieldDescriptor> fieldsThat(const std::vector<FieldDescriptor>& fields,
                                        bool (FieldDescriptor::*holds)() const) {
  std::vector<FieldDescriptor> kept;
  std::ranges::copy_if(fields, std::back_inserter(kept), holds);
  return kept;
}

}  // namespace

std::string StoreColumn::sql() const {
  return std::visit(overloaded{
                        [](Slot slot) { return fmt::format("s{}", slot.index); },
                        [](Level) { return std::string("level"); },
                        [](Timestamp) { return std::string("ts"); },
                        [](Message) { return std::string("message"); },
                    },
                    value_);
}

const SourceDescriptor& SourceDescriptor::dlt() {
  static const SourceDescriptor descriptor(
      "dlt", "DLT",
      {
          {"ecu", "ECU", StoreColumn::slot(0), true, true, true, "car"},
          {"app", "App", StoreColumn::slot(1), true, true, true, "app"},
          {"context", "Context", StoreColumn::slot(2), true, true, true, "tag"},
          {"type", "Type", StoreColumn::slot(3), false, true, true, "square.stack.3d.up"},
          {"count", "Count", StoreColumn::slot(4), false, true, true, "number"},
          {"session", "Session", StoreColumn::slot(5), false, true, false, "number.square"},
          {"tmsp", "Time (ECU)", StoreColumn::slot(6), false, true, false, "clock"},
          {"level", "Level", StoreColumn::level(), true, true, true, "exclamationmark.triangle"},
      },
      DisplayHints{}, "app");
  return descriptor;
}

const SourceDescriptor& SourceDescriptor::logcat() {
  static const SourceDescriptor descriptor(
      "logcat", "Android",
      {
          {"tag", "Tag", StoreColumn::slot(0), true, true, true, "tag"},
          {"pid", "PID", StoreColumn::slot(1), true, true, true, "number"},
          {"tid", "TID", StoreColumn::slot(2), false, true, false, "number"},
          {"level", "Level", StoreColumn::level(), true, true, true, "exclamationmark.triangle"},
      },
      DisplayHints{}, "tag");
  return descriptor;
}

const FieldDescriptor* SourceDescriptor::field(std::string_view named) const {
  const auto found = std::ranges::find_if(fields_, [named](const FieldDescriptor& field) {
    return unicode::equalsIgnoringCase(field.name(), named);
  });
  return found == fields_.end() ? nullptr : &*found;
}

std::vector<FieldDescriptor> SourceDescriptor::queryableFields() const {
  return fieldsThat(fields_, &FieldDescriptor::queryable);
}

std::vector<FieldDescriptor> SourceDescriptor::tableFields() const {
  return fieldsThat(fields_, &FieldDescriptor::inTable);
}

std::vector<StoreColumn> SourceDescriptor::indexedColumns() const {
  std::vector<StoreColumn> columns;
  for (const auto& field : fields_) {
    if (field.indexed()) columns.push_back(field.column());
  }
  return columns;
}

StoreColumn SourceDescriptor::appColumn() const {
  if (appFieldName_) {
    if (const auto* named = field(*appFieldName_)) return named->column();
  }
  return fields_.empty() ? StoreColumn::slot(0) : fields_.front().column();
}

std::optional<std::string> SourceDescriptor::validationError() const {
  std::unordered_map<StoreColumn, std::string_view> firstNames;
  for (const auto& field : fields_) {
    const auto [first, isNew] = firstNames.emplace(field.column(), field.name());
    if (!isNew) {
      return fmt::format("fields '{}' and '{}' both map to column {}", first->second, field.name(),
                         field.column().sql());
    }
  }
  return std::nullopt;
}

}  // namespace runeflow

std::size_t std::hash<runeflow::StoreColumn>::operator()(
    const runeflow::StoreColumn& column) const noexcept {
  const auto* slot = std::get_if<runeflow::StoreColumn::Slot>(&column.value());
  const std::size_t payload = slot ? std::hash<std::int64_t>{}(slot->index) : 0;
  return payload * 4 + column.value().index();
}
