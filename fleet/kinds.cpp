// SPDX-License-Identifier: MIT

#include "fleet/kinds.h"

#include <algorithm>
#include <map>
#include <utility>

#include "host/log_kind.h"

namespace fleet {
namespace {

using runeflow::FieldDescriptor;
using runeflow::SourceDescriptor;
using runeflow::StoreColumn;

SourceDescriptor withTableFields(const SourceDescriptor& local) {
  std::vector<FieldDescriptor> fields = {
      {"capture", "Capture", kCaptureColumn, true, true, true, ""},
      {"kind", "Kind", kKindColumn, true, true, false, ""}};
  for (const auto& field : local.fields()) fields.push_back(field);
  return {local.id(), local.displayName(), std::move(fields), local.display(),
          local.appFieldName()};
}

const SourceDescriptor& unknownKind() {
  static const SourceDescriptor descriptor = withTableFields(
      {"", "", {{"level", "Level", StoreColumn::level(), true, true, true, ""}}, {}, std::nullopt});
  return descriptor;
}

std::vector<std::string> allSlotFields() {
  std::vector<std::string> names;
  for (const auto& kind : host::LogKind::all()) {
    for (const auto& field : kind.descriptor().fields()) {
      const bool isSlot = std::holds_alternative<StoreColumn::Slot>(field.column().value());
      if (isSlot && std::ranges::find(names, field.name()) == names.end()) {
        names.push_back(field.name());
      }
    }
  }
  return names;
}

}  // namespace

const SourceDescriptor& descriptorOf(std::string_view kind) {
  static const auto descriptors = [] {
    std::map<std::string_view, SourceDescriptor> all;
    for (const auto& known : host::LogKind::all()) {
      all.emplace(known.id, withTableFields(known.descriptor()));
    }
    return all;
  }();
  const auto found = descriptors.find(kind);
  return found == descriptors.end() ? unknownKind() : found->second;
}

std::vector<std::string_view> kindIds() {
  std::vector<std::string_view> ids;
  for (const auto& kind : host::LogKind::all()) ids.push_back(kind.id);
  return ids;
}

const std::vector<std::string>& slotFields() {
  static const std::vector<std::string> names = allSlotFields();
  return names;
}

std::optional<std::string> fieldInSlot(const SourceDescriptor& descriptor, std::int64_t slot) {
  const auto& fields = descriptor.fields();
  const auto found = std::ranges::find(fields, StoreColumn::slot(slot), &FieldDescriptor::column);
  if (found == fields.end()) return std::nullopt;
  return found->name();
}

}  // namespace fleet
