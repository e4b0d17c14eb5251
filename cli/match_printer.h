// SPDX-License-Identifier: MIT

// Prints the records that a search has found, with the records stored around them.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "record_printer.h"
#include "runeflow/store/event_store.h"

namespace cli {

// How many records to print before and after each match.
struct Context {
  std::int64_t before = 0;
  std::int64_t after = 0;
  bool isWanted() const { return before > 0 || after > 0; }
};

// Fetches a few records at a time, so that memory does not grow with the number of matches. The
// store and the printer must outlive the object.
class MatchPrinter {
 public:
  // Fails if a match of `query` is missing in the database at `path`; see host::failIfMissing().
  MatchPrinter(runeflow::EventStore& store, RecordPrinter& printer, Context context,
               runeflow::LogQuery query, std::string path)
      : store_(store),
        printer_(printer),
        context_(context),
        query_(std::move(query)),
        path_(std::move(path)) {}

  // Prints the records of `seqs`, which are in ascending order and above all that were printed. The
  // context after the last one is not printed yet, because another match may follow in it.
  void print(std::span<const std::int64_t> seqs);

  // Prints the records of `seqs`, which are in ascending order, from the last to the first and
  // without context.
  void printDown(std::span<const std::int64_t> seqs);

  // Prints the context after the last match, at most up to the seq `known`, up to which all matches
  // were printed.
  void catchUp(std::int64_t known);

  // Forgets what was printed: the store numbers its records from 1 again.
  void restart();

 private:
  std::vector<runeflow::FetchedRow> fetched(std::span<const std::int64_t> seqs);
  void printRange(std::int64_t first, std::int64_t last, std::span<const std::int64_t> matches);

  runeflow::EventStore& store_;
  RecordPrinter& printer_;
  Context context_;
  runeflow::LogQuery query_;
  std::string path_;
  std::int64_t printedUntil_ = 0;  // the last seq that was printed
  std::int64_t wantedUntil_ = 0;   // the last seq of the context after the last match
};

}  // namespace cli
