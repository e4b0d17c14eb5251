// SPDX-License-Identifier: MIT
#include <fmt/format.h>

#include <filesystem>
#include <limits>
#include <vector>

#include "commands.h"
#include "fleet_commands.h"
#include "host/database.h"
#include "host/failure.h"
#include "host/record_search.h"
#include "interrupt.h"
#include "output.h"
#include "query_hints.h"
#include "question.h"
#include "terminal.h"

namespace cli {

using runeflow::EventStore;

namespace {

constexpr std::int64_t kBatch = 1'000;  // records in a transaction

// Stores the records of `seqs` in the target.
void copy(EventStore& from, const std::vector<std::int64_t>& seqs, EventStore& to,
          const host::RecordSearch& search, const ExportOptions& options) {
  auto records = from.fetch(seqs);
  host::failIfMissing(from, search.query(), seqs, records, options.database);
  std::vector<runeflow::LogRow> rows;
  rows.reserve(records.size());
  for (auto& record : records) rows.push_back(std::move(record.row));
  const auto before = to.insertedRows();
  to.insert(rows);
  const auto error = to.takeError();
  if (to.insertedRows() - before == std::ssize(rows)) return;
  host::fail("cannot store all records in {}: {}", options.target,
             error ? error->text : "a record is too large");
}

}  // namespace

int exportRecords(const ExportOptions& options) {
  if (isFleet(options.database)) host::fail("export takes a local database, not a fleet's table");
  std::error_code ignored;
  if (std::filesystem::exists(options.target, ignored)) {
    host::fail("{} exists; export writes into a new database", options.target);
  }
  auto store = host::openDatabase(options.database, options.source);
  const auto question = questionOf(options, endOf(store), store, options.database);
  host::RecordSearch search(store, question.query, question.filter);
  // What another program stores meanwhile is left out, so that the export ends.
  const auto last = store.maxSeq();
  auto seqs = search.oldest(0, kBatch);
  host::failIfIncomplete(store, options.database);
  if (seqs.empty()) {
    hintAt(store, options.text, question.typed);
    return 1;
  }
  const Interrupt interrupt;
  auto target = host::openForCapture(options.target, store.descriptor());
  target.prepareForCapture();
  while (!seqs.empty() && seqs.front() <= last && !interrupt.isRequested()) {
    copy(store, seqs, target, search, options);
    seqs = std::ssize(seqs) < kBatch ? decltype(seqs)() : search.oldest(seqs.back(), kBatch);
    host::failIfIncomplete(store, options.database);
  }
  say("{} exported to {}{}", counted(target.insertedRows(), "record"), options.target,
      interrupt.isRequested() ? "; interrupted before the end" : "");
  return interrupt.isRequested() ? 2 : 0;
}

}  // namespace cli
