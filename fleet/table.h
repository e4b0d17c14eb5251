// SPDX-License-Identifier: MIT

// The table of a fleet: one for the records of all captures and all kinds. docs/fleet.md describes
// its columns.
//
// The table drops duplicates when it merges its parts (ReplacingMergeTree). Until then a block that
// was sent twice is there twice, so every read counts and prints a record, which is identified by
// (capture, generation, seq), once.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "fleet/address.h"
#include "fleet/engine.h"
#include "fleet/row_binary.h"
#include "runeflow/model/log_row.h"

namespace fleet {

// The hour of a record begins the order of the table, so that a time span reads few of its rows.
inline constexpr std::int64_t kMicrosecondsPerHour = 3'600'000'000;
inline constexpr const char* kHour = "intDiv(time, 3600000000)";

// A record of a capture.
struct Record {
  std::string capture;
  std::uint32_t generation;  // grows when the local database was cleared or replaced
  std::int64_t seq;
  std::int64_t microseconds;  // since 1970; `row` holds the same as a double
  std::string kind;           // may be one that this program does not know; then it has no slots
  runeflow::LogRow row;
};

// The identity of a record, in the order in which records are printed.
struct RecordKey {
  std::int64_t microseconds;
  std::string capture;
  std::uint32_t generation;
  std::int64_t seq;
  bool operator==(const RecordKey&) const = default;
};

// Returns the table's name in backquotes, with its database.
std::string tableName(const Address& address);

// The list of the columns that readRecord() reads, for a SELECT. `message` is the expression that
// gives the text of the message.
std::string recordColumns(std::string_view message = "message");

// Reads one row of recordColumns(). The result is meaningless if the reader is short.
Record readRecord(RowBinaryReader& reader);

RecordKey keyOf(const Record& record);

// How far --create has got.
struct Created {
  // Without ZooKeeper the servers of a cluster do not pass statements on: the caller must send
  // --create to each of them.
  bool isOnThisServerOnly = false;
};

// Creates the table if it does not exist. With a cluster, creates TABLE_local on each server and
// TABLE, a Distributed table over them that keeps all records of a capture on one server.
Created createTable(Engine& engine, const std::string& cluster);

// The statements of createTable(), with `onCluster` inserted after the names of the tables.
std::vector<std::string> createStatements(const Address& address, const std::string& cluster,
                                          const std::string& onCluster);

}  // namespace fleet
