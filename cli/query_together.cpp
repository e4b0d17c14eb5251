// SPDX-License-Identifier: MIT

// A query of several databases: one answer, in the order of time.
#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <list>
#include <vector>

#include "commands.h"
#include "fleet_commands.h"
#include "host/database.h"
#include "host/failure.h"
#include "host/merged_records.h"
#include "output.h"
#include "query_hints.h"
#include "question.h"
#include "terminal.h"
#include "timeline_view.h"

namespace cli {

using host::MergedRecord;
using host::MergedRecords;
using runeflow::EventStore;
using runeflow::Timeline;
using runeflow::TimeSpan;

namespace {

constexpr auto kEndOfSeqs = std::numeric_limits<std::int64_t>::max();

// A database, what is asked of it, and the search that answers.
struct Part {
  std::string path;
  EventStore store;
  Question question;
  host::RecordSearch search;

  Part(std::string name, EventStore opened, const QueryOptions& options, std::int64_t end)
      : path(std::move(name)),
        store(std::move(opened)),
        question(questionOf(options, end, store, path)),
        search(store, question.query, question.filter) {}
  Part(const Part&) = delete;
  Part& operator=(const Part&) = delete;
};

using Parts = std::list<Part>;  // a search keeps the address of its store

void refuseWhatNeedsOneDatabase(const QueryOptions& options) {
  const auto refuse = [](bool isGiven, const char* option) {
    if (isGiven) host::fail("{} goes with one database, not with --with", option);
  };
  refuse(options.after.has_value(), "--after");
  refuse(options.around || options.before || options.behind, "-A, -B or -C");
  refuse(options.follows, "--follow");
  refuse(options.showsPlan, "--plan");
}

// Databases of several kinds are recognised one by one.
Parts openAll(const QueryOptions& options) {
  std::vector<std::string> paths = {options.database};
  paths.insert(paths.end(), options.others.begin(), options.others.end());
  std::vector<EventStore> stores;
  auto end = std::numeric_limits<std::int64_t>::min();
  for (const auto& path : paths) {
    if (isFleet(path)) host::fail("--with takes local databases, not {}", path);
    stores.push_back(host::openDatabase(path, options.source));
    if (stores.back().maxSeq() > 0) end = std::max(end, endOf(stores.back()));
  }
  if (end == std::numeric_limits<std::int64_t>::min()) end = endOf(stores.front());  // now
  Parts parts;
  for (std::size_t i = 0; i < paths.size(); ++i) {
    parts.emplace_back(paths[i], std::move(stores[i]), options, end);
  }
  return parts;
}

MergedRecords merged(Parts& parts, MergedRecords::Direction direction) {
  std::vector<host::MergeSource> sources;
  for (auto& part : parts) sources.push_back({&part.store, &part.search, part.path});
  return {std::move(sources), direction};
}

std::vector<RecordSource> sourcesOf(const Parts& parts, const QueryOptions& options) {
  std::vector<RecordSource> sources;
  for (const auto& part : parts) {
    sources.push_back({part.path, part.store.descriptor(), marksOf(part.question, options)});
  }
  return sources;
}

void printAll(RecordPrinter& printer, const std::vector<MergedRecord>& page) {
  for (const auto& [source, record] : page) printer.fitColumnsTo({&record, 1}, source);
  for (const auto& [source, record] : page) printer.print({&record, 1}, source);
}

// Prints the records from one end to the other, at most `limit`. Returns their number.
std::int64_t printFrom(MergedRecords records, RecordPrinter& printer, std::int64_t limit) {
  constexpr std::size_t kPage = 200;  // records whose columns are aligned at once
  std::int64_t printed = 0;
  std::vector<MergedRecord> page;
  while (printed < limit) {
    auto record = records.next();
    const bool isAtEnd = !record;
    if (record) {
      page.push_back(*std::move(record));
      ++printed;
    }
    if (!isAtEnd && page.size() < kPage && printed < limit) continue;
    printAll(printer, page);
    page.clear();
    if (isAtEnd) break;
  }
  return printed;
}

// Prints the `count` records at one end in the order from the other.
std::int64_t printEnd(MergedRecords records, RecordPrinter& printer, std::int64_t count) {
  std::vector<MergedRecord> page;
  while (std::ssize(page) < count) {
    auto record = records.next();
    if (!record) break;
    page.push_back(*std::move(record));
  }
  std::ranges::reverse(page);
  printAll(printer, page);
  return std::ssize(page);
}

std::int64_t printTo(std::FILE* out, Parts& parts, const QueryOptions& options) {
  RecordPrinter printer(sourcesOf(parts, options),
                        {.format = formatOf(options),
                         .usesColour = showsColour(stdout),
                         .showsSeq = options.showsSeq},
                        out);
  using enum MergedRecords::Direction;
  const auto wanted = options.isReversed ? options.first : options.last;
  if (wanted) return printEnd(merged(parts, options.isReversed ? up : down), printer, *wanted);
  const auto limit = (options.isReversed ? options.last : options.first).value_or(kEndOfSeqs);
  return printFrom(merged(parts, options.isReversed ? down : up), printer, limit);
}

std::int64_t printCount(Parts& parts) {
  std::int64_t count = 0;
  for (auto& part : parts) count += part.search.count(0);
  fmt::print("{}\n", count);
  return count;
}

std::int64_t printTimeline(Parts& parts, const QueryOptions& options) {
  std::optional<TimeSpan> all;
  for (auto& part : parts) {
    const auto span = part.store.timeSpan(1, kEndOfSeqs);
    if (!span) continue;
    if (!all) all = span;
    all = TimeSpan{std::min(all->from, span->from), std::max(all->until, span->until)};
  }
  if (!all) return 0;
  const auto sum = [&parts](TimeSpan span, std::size_t bars) {
    Timeline timeline{span, std::vector<Timeline::Bar>(bars)};
    for (auto& part : parts) {
      const auto found = part.search.timeline(span, bars);
      for (std::size_t i = 0; i < std::min(bars, found.bars.size()); ++i) {
        std::ranges::transform(timeline.bars[i], found.bars[i], timeline.bars[i].begin(),
                               std::plus());
      }
    }
    return timeline;
  };
  return printTimelineOf(*all, parts.front().question.times, options, sum);
}

}  // namespace

int queryTogether(const QueryOptions& options) {
  refuseWhatNeedsOneDatabase(options);
  auto parts = openAll(options);
  const auto found =
      options.counts ? printCount(parts)
      : options.showsTimeline
          ? printTimeline(parts, options)
          : printRecordsTo(options, [&](std::FILE* out) { return printTo(out, parts, options); });
  for (auto& part : parts) host::failIfIncomplete(part.store, part.path);
  if (found > 0) return 0;
  flushOutput();
  hintAt(parts.front().store, options.text, parts.front().question.typed);
  return 1;
}

}  // namespace cli
