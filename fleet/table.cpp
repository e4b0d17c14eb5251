// SPDX-License-Identifier: MIT

#include "fleet/table.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "fleet/kinds.h"
#include "fleet/sql.h"

namespace fleet {

using runeflow::LogRow;
using runeflow::RuneflowLogLevel;

namespace {

std::string columnDefinitions() {
  std::string columns =
      "capture String, generation UInt32, seq Int64, time Int64, level UInt8, kind String, "
      "source String";
  for (const auto& field : slotFields()) {
    columns += fmt::format(", {} Nullable(String)", sqlName(field));
  }
  return columns +
         ", message String, ctx_keys Array(String), ctx_values Array(String), words Array(String), "
         "block Int64, block_end Int64, block_rows UInt32, "
         "day Date DEFAULT today(), shipped DateTime DEFAULT now()";
}

// Puts the texts of the fields that records of that kind have into their slots.
LogRow::Slots slotsOf(const std::string& kind,
                      const std::vector<std::optional<std::string_view>>& fields) {
  LogRow::Slots slots;
  const auto& descriptor = descriptorOf(kind);
  const auto& names = slotFields();
  for (std::size_t slot = 0; slot < slots.size(); ++slot) {
    const auto name = fieldInSlot(descriptor, static_cast<std::int64_t>(slot));
    if (!name) continue;
    const auto at = std::ranges::find(names, *name) - names.begin();
    slots[slot] = fields[static_cast<std::size_t>(at)];
  }
  return slots;
}

std::optional<LogRow::Context> contextOf(const std::vector<std::string_view>& keys,
                                         const std::vector<std::string_view>& values) {
  if (keys.empty() || keys.size() != values.size()) return std::nullopt;
  LogRow::Context ctx;
  for (std::size_t i = 0; i < keys.size(); ++i) ctx.emplace(keys[i], values[i]);
  return ctx;
}

}  // namespace

std::string tableName(const Address& address) {
  return sqlName(address.database) + '.' + sqlName(address.table);
}

std::string recordColumns(std::string_view message) {
  std::string columns = "capture, generation, seq, time, kind, level";
  for (const auto& field : slotFields()) columns += ", " + sqlName(field);
  return fmt::format("{}, {}, ctx_keys, ctx_values", columns, message);
}

Record readRecord(RowBinaryReader& reader) {
  std::string capture(reader.text());
  const auto generation = reader.uint32();
  const auto seq = reader.int64();
  const auto microseconds = reader.int64();
  std::string kind(reader.text());
  const auto level = runeflow::levelFromRawValue(reader.uint8());
  std::vector<std::optional<std::string_view>> fields;
  fields.reserve(slotFields().size());
  for (std::size_t i = 0; i < slotFields().size(); ++i) fields.push_back(reader.nullableText());
  const auto message = reader.text();
  const auto keys = reader.texts();
  const auto values = reader.texts();
  LogRow row(runeflow::timestampFromMicroseconds(microseconds),
             level.value_or(RuneflowLogLevel::Info), message, contextOf(keys, values),
             slotsOf(kind, fields));
  return {std::move(capture), generation, seq, microseconds, std::move(kind), std::move(row)};
}

RecordKey keyOf(const Record& record) {
  return {record.microseconds, record.capture, record.generation, record.seq};
}

std::vector<std::string> createStatements(const Address& address, const std::string& cluster,
                                          const std::string& onCluster) {
  const auto order = fmt::format(
      "ENGINE = ReplacingMergeTree() PARTITION BY day "
      "ORDER BY ({}, capture, generation, source, time, seq)",
      kHour);
  const auto create = [&](const std::string& table, const std::string& engine) {
    return fmt::format("CREATE TABLE IF NOT EXISTS {}{} ({}) {}", table, onCluster,
                       columnDefinitions(), engine);
  };
  const auto table = tableName(address);
  if (cluster.empty()) return {create(table, order)};
  Address local = address;
  local.table += "_local";
  return {create(tableName(local), order),
          create(table,
                 fmt::format("ENGINE = Distributed({}, {}, {}, cityHash64(capture))",
                             sqlText(cluster), sqlText(address.database), sqlText(local.table)))};
}

Created createTable(Engine& engine, const std::string& cluster) {
  const auto& address = engine.address();
  const auto run = [&](const std::string& onCluster) {
    for (const auto& statement : createStatements(address, cluster, onCluster)) {
      engine.ask(statement);
    }
  };
  if (cluster.empty()) {
    run("");
    return {};
  }
  try {
    run(" ON CLUSTER " + sqlText(cluster));
    return {};
  } catch (const EngineError& error) {
    // Releases differ in the code of this error, but all name the worker that is missing.
    const auto& text = error.engineText();
    if (text.find("DDL") == std::string::npos && text.find("ooKeeper") == std::string::npos) throw;
  }
  run("");
  return {.isOnThisServerOnly = true};
}

}  // namespace fleet
