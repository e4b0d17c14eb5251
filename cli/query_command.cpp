// SPDX-License-Identifier: MIT
#include <fmt/format.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include "commands.h"
#include "fleet_commands.h"
#include "host/database.h"
#include "host/failure.h"
#include "host/new_records.h"
#include "host/record_search.h"
#include "interrupt.h"
#include "match_printer.h"
#include "output.h"
#include "query_hints.h"
#include "question.h"
#include "record_printer.h"
#include "terminal.h"
#include "timeline_view.h"

namespace cli {

using runeflow::EventStore;
using runeflow::TimeSpan;

namespace {

constexpr std::int64_t kFollowLockWait = 500;  // milliseconds; Ctrl-C waits for it
constexpr int kFollowMilliseconds = 65;
constexpr std::int64_t kFollowPage = 4'000;  // the new matches in one read, mostly
constexpr auto kEndOfSeqs = std::numeric_limits<std::int64_t>::max();

Context contextOf(const QueryOptions& options) {
  const auto around = options.around.value_or(0);
  return {options.before.value_or(around), options.behind.value_or(around)};
}

bool hasReader(std::FILE* out) {
  pollfd output{.fd = ::fileno(out), .events = 0, .revents = 0};
  return ::poll(&output, 1, 0) >= 0 && (output.revents & POLLERR) == 0;
}

// Returns the seq after `seq`, if there is one.
std::int64_t nextSeq(std::int64_t seq) {
  return seq == kEndOfSeqs ? seq : seq + 1;
}

// The part of the matches to print: those above `after` and up to `end`, at most `limit`.
struct Part {
  std::int64_t after;
  std::int64_t end;
  std::int64_t limit = kEndOfSeqs;
};

// Prints the part from its oldest match on. Returns the number of its matches.
std::int64_t printUp(host::RecordSearch& search, MatchPrinter& matches, Part part,
                     host::PageSize size = {}) {
  std::int64_t printed = 0;
  while (printed < part.limit) {
    const auto wanted = std::min(size.next(), part.limit - printed);
    auto seqs = search.oldest(part.after, wanted);
    const bool isLast = std::ssize(seqs) < wanted || seqs.back() >= part.end;
    seqs.erase(std::ranges::upper_bound(seqs, part.end), seqs.end());
    matches.print(seqs);
    printed += std::ssize(seqs);
    if (isLast) break;
    part.after = seqs.back();
  }
  return printed;
}

// Prints the part from its newest match on. Returns the number of its matches.
std::int64_t printDown(host::RecordSearch& search, MatchPrinter& matches, Part part) {
  std::int64_t printed = 0;
  auto below = nextSeq(part.end);
  for (host::PageSize size; printed < part.limit;) {
    const auto wanted = std::min(size.next(), part.limit - printed);
    auto seqs = search.newest(below, wanted);
    const bool isLast = std::ssize(seqs) < wanted || seqs.front() <= part.after;
    seqs.erase(seqs.begin(), std::ranges::upper_bound(seqs, part.after));
    matches.printDown(seqs);
    printed += std::ssize(seqs);
    if (isLast) break;
    below = seqs.front();
  }
  return printed;
}

// Prints what is stored, as the options choose. Returns the number of matches.
std::int64_t printStored(host::RecordSearch& search, MatchPrinter& matches,
                         const QueryOptions& options, std::int64_t end) {
  const auto after = options.after.value_or(0);
  if (options.isReversed && !options.first) {
    return printDown(search, matches, {after, end, options.last.value_or(kEndOfSeqs)});
  }
  if (!options.isReversed && !options.last) {
    return printUp(search, matches, {after, end, options.first.value_or(kEndOfSeqs)});
  }
  auto seqs = options.last ? search.newest(nextSeq(end), *options.last)
                           : search.oldest(after, *options.first);
  seqs.erase(seqs.begin(), std::ranges::upper_bound(seqs, after));
  if (options.isReversed) {
    matches.printDown(seqs);
  } else {
    matches.print(seqs);
  }
  return std::ssize(seqs);
}

// Prints new matches until the user interrupts. All matches up to `after` were printed.
void follow(EventStore& store, host::RecordSearch& search, MatchPrinter& matches,
            std::int64_t after, const std::string& path) {
  const Interrupt interrupt;
  store.setLockWait(std::make_shared<std::atomic<std::int64_t>>(kFollowLockWait));
  host::NewRecords news;
  do {
    const auto change = news.look(store);
    if (!change) host::failWith(change.error(), path);
    if (*change == host::NewRecords::Change::renumbered) {
      after = 0;
      matches.restart();
    }
    if (*change != host::NewRecords::Change::none) {
      // A full pipe blocks the output, which Ctrl-C must be able to end.
      interrupt.unblockSignals();
      printUp(search, matches, {after, news.newest()}, host::PageSize(kFollowPage));
      matches.catchUp(news.newest());
      flushOutput();
      interrupt.blockSignals();
      after = std::max(after, news.newest());
    }
    host::failIfIncomplete(store, path);
  } while (!interrupt.waitFor(kFollowMilliseconds) && hasReader(stdout));
}

// Prints to `out`. Returns the number of the matches that were stored before.
std::int64_t printTo(std::FILE* out, EventStore& store, const Question& question,
                     const QueryOptions& options) {
  const auto context = contextOf(options);
  std::vector<RecordSource> sources;
  sources.push_back({"", store.descriptor(), marksOf(question, options)});
  RecordPrinter printer(std::move(sources),
                        {.format = formatOf(options),
                         .usesColour = showsColour(stdout),
                         .hasContext = context.isWanted(),
                         .showsSeq = options.showsSeq},
                        out);
  MatchPrinter matches(store, printer, context, question.query, options.database);
  host::RecordSearch search(store, question.query, question.filter);
  // --follow shows only new records unless the options ask for older ones.
  const bool wantsOld = !options.follows || options.after || options.last || !options.since.empty();
  const auto end = std::max(store.maxSeq(), options.after.value_or(0));
  // Without --follow, reports seqs that a damaged file lists without having their records.
  const auto last = end == 0 && !options.follows ? kEndOfSeqs : end;
  const auto printed = wantsOld ? printStored(search, matches, options, last) : 0;
  matches.catchUp(end);
  if (options.follows) {
    flushOutput();
    follow(store, search, matches, end, options.database);
  }
  return printed;
}

std::int64_t printCount(host::RecordSearch& search, const QueryOptions& options) {
  const auto count = search.count(options.after.value_or(0));
  fmt::print("{}\n", count);
  return count;
}

std::int64_t printTimeline(EventStore& store, host::RecordSearch& search, const Question& question,
                           const QueryOptions& options) {
  const auto span = store.timeSpan(1, kEndOfSeqs);
  if (!span) return 0;
  return printTimelineOf(*span, question.times, options, [&](TimeSpan grid, std::size_t bars) {
    return search.timeline(grid, bars);
  });
}

int printPlan(EventStore& store, const Question& question, const QueryOptions& options) {
  const auto plan = store.matchingSeqsQueryPlan(question.query, options.after.value_or(0));
  for (const auto& step : plan) printLine("{}", step);
  return 0;
}

}  // namespace

int query(const QueryOptions& options) {
  if (isFleet(options.database)) return queryFleet(options);
  if (!options.others.empty()) return queryTogether(options);
  auto store = host::openDatabase(options.database, options.source);
  const auto question = questionOf(options, endOf(store), store, options.database);
  if (options.showsPlan) return printPlan(store, question, options);
  host::RecordSearch search(store, question.query, question.filter);
  const auto found = options.counts          ? printCount(search, options)
                     : options.showsTimeline ? printTimeline(store, search, question, options)
                                             : printRecordsTo(options, [&](std::FILE* out) {
                                                 return printTo(out, store, question, options);
                                               });
  host::failIfIncomplete(store, options.database);
  if (found > 0 || options.follows) return 0;
  flushOutput();  // the output must appear above the hint
  hintAt(store, options.text, question.typed);
  return 1;
}

}  // namespace cli
