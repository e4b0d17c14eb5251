// SPDX-License-Identifier: MIT

// Prints records, for people and for programs.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
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
  bool showsSeq = false;    // for people, too
};

// The records of one database among those that are printed.
struct RecordSource {
  std::string name;  // in a column of its own; empty if there is no other database
  runeflow::SourceDescriptor descriptor;
  host::MessageMarks marks;  // for people, these pieces of matches are highlighted
};

// Prints records of one database, or of several, whose fields are then the columns of all. For
// people, says the time zone above the first record, and wraps messages at the width of the
// terminal.
class RecordPrinter {
 public:
  RecordPrinter(std::vector<RecordSource> sources, RecordStyle style, std::FILE* out);

  // Prints records that match, of the source with that index.
  void print(std::span<const runeflow::FetchedRow> records, std::size_t source = 0);

  // Prints records of which those match whose seq is one of `matches`, in ascending order.
  void print(std::span<const runeflow::FetchedRow> records, std::span<const std::int64_t> matches);

  // Widens the columns for records that are printed later.
  void fitColumnsTo(std::span<const runeflow::FetchedRow> records, std::size_t source = 0);

  // Prints a line between two groups of records, as grep does. CSV and JSON have none.
  void separate();

 private:
  struct Column {
    std::string name;
    bool isInTable = false;
    std::vector<std::optional<std::int64_t>> slots;  // by the index of the source
    std::size_t width = 0;                           // in terminal columns
  };

  void addColumns(std::size_t source);
  void sayZone();
  template <class IsMatch>
  void printAs(std::span<const runeflow::FetchedRow> records, std::size_t source,
               const IsMatch& isMatch);
  std::string peopleLine(const runeflow::FetchedRow& record, std::size_t source,
                         bool isMatch) const;
  std::string plainLine(const runeflow::FetchedRow& record, std::size_t source, bool isMatch) const;
  std::string jsonLine(const runeflow::FetchedRow& record, std::size_t source, bool isMatch) const;
  std::string csvLine(const runeflow::FetchedRow& record, std::size_t source, bool isMatch) const;
  std::string csvHeader() const;
  std::string message(const runeflow::FetchedRow& record, std::size_t source, bool isMatch) const;
  bool hasSeveral() const { return sources_.size() > 1; }

  std::vector<RecordSource> sources_;
  std::vector<Column> columns_;
  RecordStyle style_;
  std::FILE* out_;
  bool isGuarded_;  // the output reaches a terminal: CSV and JSON are escaped, too
  std::optional<std::size_t> width_;  // of the lines for people
  std::size_t nameWidth_ = 0;
  std::size_t seqWidth_ = 0;
  bool hasSaidZone_ = false;
};

}  // namespace cli
