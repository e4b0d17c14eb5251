// SPDX-License-Identifier: MIT

// Prints records, for people and for programs.
#pragma once

#include <cstdint>
#include <cstdio>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "host/message_marks.h"
#include "runeflow/store/event_store.h"

namespace cli {

std::string_view levelColour(runeflow::RuneflowLogLevel level);

// Returns the text as a field of RFC 4180, quoted if it must be.
std::string csvField(std::string_view text);

enum class RecordFormat {
  people,  // local time, level letter, table fields in columns, the query's words highlighted
  plain,   // one line per record, separated by tabs: seq, UTC time, level, all fields, message
  json,    // one object per line
  csv      // RFC 4180 with a header line
};

struct RecordStyle {
  RecordFormat format;
  bool usesColour = false;
  bool hasContext = false;  // some records are no matches; every line tells which it is
};

class RecordPrinter {
 public:
  // For people, the pieces that `marks` finds in the messages of matches are highlighted.
  RecordPrinter(const runeflow::SourceDescriptor& descriptor, RecordStyle style,
                host::MessageMarks marks, std::FILE* out);

  // Prints records that match.
  void print(std::span<const runeflow::FetchedRow> records);

  // Prints records of which those match whose seq is one of `matches`, in ascending order.
  void print(std::span<const runeflow::FetchedRow> records, std::span<const std::int64_t> matches);

  // Prints a line between two groups of records, as grep does. CSV and JSON have none.
  void separate();

 private:
  template <class IsMatch>
  void printAs(std::span<const runeflow::FetchedRow> records, const IsMatch& isMatch);
  void fitColumnsTo(std::span<const runeflow::FetchedRow> records);
  std::string peopleLine(const runeflow::FetchedRow& record, bool isMatch) const;
  std::string plainLine(const runeflow::FetchedRow& record, bool isMatch) const;
  std::string jsonLine(const runeflow::FetchedRow& record, bool isMatch) const;
  std::string csvLine(const runeflow::FetchedRow& record, bool isMatch) const;
  std::string csvHeader() const;
  std::string highlighted(std::string_view message) const;

  struct Column {
    std::string name;
    std::int64_t slot;
    bool isInTable;
    std::size_t width = 0;  // in terminal columns
  };

  runeflow::SourceDescriptor descriptor_;
  std::vector<Column> columns_;
  RecordStyle style_;
  host::MessageMarks marks_;
  std::FILE* out_;
  bool isGuarded_;  // the output reaches a terminal: CSV and JSON are escaped, too
};

}  // namespace cli
