// SPDX-License-Identifier: MIT

// Prints records, for people and for programs.
#pragma once

#include <cstdio>
#include <span>
#include <string>
#include <string_view>
#include <vector>

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

struct Highlighting {
  std::vector<std::string> words;
  bool matchCase = false;
  bool usesColour = false;
};

class RecordPrinter {
 public:
  RecordPrinter(const runeflow::SourceDescriptor& descriptor, RecordFormat format,
                Highlighting highlighting, std::FILE* out);

  void print(std::span<const runeflow::FetchedRow> records);

 private:
  void fitColumnsTo(std::span<const runeflow::FetchedRow> records);
  std::string peopleLine(const runeflow::FetchedRow& record) const;
  std::string jsonLine(const runeflow::FetchedRow& record) const;
  std::string csvLine(const runeflow::FetchedRow& record) const;
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
  RecordFormat format_;
  Highlighting highlighting_;
  std::FILE* out_;
  bool isGuarded_;  // the output reaches a terminal: CSV and JSON are escaped, too
};

}  // namespace cli
