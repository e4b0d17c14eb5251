// SPDX-License-Identifier: MIT

// Prints the records of a fleet, whose lines begin with the capture. The forms for programs have
// the same columns for all kinds of records.
#pragma once

#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "fleet/table.h"
#include "record_printer.h"

namespace cli {

// Collects records to align their columns.
class FleetPrinter {
 public:
  // `marked` returns a message, escaped for a terminal and with its found words highlighted.
  using Marked = std::function<std::string(std::string_view message)>;

  FleetPrinter(RecordFormat format, bool usesColour, Marked marked, std::FILE* out);

  // Keeps a record, and prints when there are enough for a page.
  void add(const fleet::Record& record);
  // Prints what is kept.
  void flush();

 private:
  std::string peopleLine(const fleet::Record& record) const;
  std::string jsonLine(const fleet::Record& record) const;
  std::string plainLine(const fleet::Record& record) const;
  std::string csvLine(const fleet::Record& record) const;
  void fitColumnsTo(const fleet::Record& record);

  RecordFormat format_;
  bool usesColour_;
  Marked marked_;
  std::FILE* out_;
  bool isGuarded_;  // the output reaches a terminal: CSV and JSON are escaped, too
  std::vector<fleet::Record> page_;
  std::size_t pageBytes_ = 0;
  std::map<std::string, std::size_t> widths_;  // by the name of the field, in terminal columns
};

}  // namespace cli
