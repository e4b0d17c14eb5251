// SPDX-License-Identifier: MIT
#include <fmt/format.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <memory>
#include <system_error>
#include <utility>

#include "commands.h"
#include "fleet_commands.h"
#include "host/database.h"
#include "host/failure.h"
#include "host/new_records.h"
#include "host/record_search.h"
#include "interrupt.h"
#include "match_printer.h"
#include "output.h"
#include "pager.h"
#include "query_hints.h"
#include "query_times.h"
#include "record_printer.h"
#include "runeflow/query/query_parser.h"
#include "terminal.h"
#include "timeline_view.h"

namespace cli {

using runeflow::EventStore;
using runeflow::FieldOp;
using runeflow::LogQuery;
using runeflow::QueryNode;
using runeflow::StoreColumn;
using runeflow::TimeSpan;

namespace {

constexpr std::int64_t kFollowLockWait = 500;  // milliseconds; Ctrl-C waits for it
constexpr int kFollowMilliseconds = 50;
constexpr auto kEndOfSeqs = std::numeric_limits<std::int64_t>::max();

// What the user asks for, without the form of the answer.
struct Question {
  LogQuery typed;                             // the words of the command line
  LogQuery query;                             // with the conditions of the options
  TimeSpan times;                             // of --since and --until
  std::optional<host::MessageFilter> filter;  // of --regex
};

// Returns the time of the newest record, or that of now if there is none.
std::int64_t endOf(EventStore& store) {
  const auto newest = store.maxSeq();
  const auto records = store.fetchPreviewRange(newest, newest, 0);
  const auto time = records.empty()
                        ? std::nullopt
                        : runeflow::microsecondsSinceEpoch(records.front().row.timestamp());
  return time.value_or(microsecondsNow());
}

QueryNode containing(const std::string& text) {
  constexpr std::size_t kLongestPattern = 50'000;  // bytes; SQLite's limit for LIKE
  if (LogQuery::escapeLike(text).size() + 2 > kLongestPattern) {
    host::fail("the text of --contains is too long; SQLite takes at most {} bytes",
               kLongestPattern - 2);
  }
  return QueryNode::field({StoreColumn::message(), FieldOp::contains, runeflow::Bind::text(text)});
}

Question questionOf(const QueryOptions& options, EventStore& store) {
  Question question{
      runeflow::QueryParser::parse(options.text, store.descriptor(), options.matchCase),
      {},
      timesOf(options, [&] { return endOf(store); }),
      {}};
  if (options.expression) question.filter.emplace(*options.expression);
  std::vector<QueryNode> conditions;
  const auto addTime = [&](FieldOp op, std::int64_t time) {
    conditions.push_back(
        QueryNode::field({StoreColumn::timestamp(), op, runeflow::Bind::int_(time)}));
  };
  if (!options.since.empty()) addTime(FieldOp::greaterOrEqual, question.times.from);
  if (!options.until.empty()) addTime(FieldOp::lessOrEqual, question.times.until - 1);
  if (conditions.empty() && !options.contained) {
    question.query = question.typed;
    return question;
  }
  if (!question.typed.isEmpty()) conditions.push_back(question.typed.root);
  if (options.contained) conditions.push_back(containing(*options.contained));
  question.query = {QueryNode::and_(std::move(conditions))};
  return question;
}

RecordFormat formatOf(const QueryOptions& options) {
  if (options.isJson) return RecordFormat::json;
  if (options.isCsv) return RecordFormat::csv;
  return isTerminal(stdout) ? RecordFormat::people : RecordFormat::plain;
}

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
std::int64_t printUp(host::RecordSearch& search, MatchPrinter& matches, Part part) {
  std::int64_t printed = 0;
  for (host::PageSize size; printed < part.limit;) {
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
      printUp(search, matches, {after, news.newest()});
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
  RecordPrinter printer(
      store.descriptor(), {formatOf(options), showsColour(stdout), context.isWanted()},
      {question.typed, options.matchCase, options.contained.value_or(""), question.filter}, out);
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

std::int64_t printRecords(EventStore& store, const Question& question,
                          const QueryOptions& options) {
  if (!options.usesPager || !isTerminal(stdout)) {
    return printTo(stdout, store, question, options);
  }
  std::int64_t printed = 1;
  Pager pager;
  try {
    printed = printTo(pager.stream(), store, question, options);
  } catch (const std::system_error&) {
    // The user has quit the pager.
  }
  pager.wait();
  return printed;
}

std::int64_t printCount(host::RecordSearch& search, const QueryOptions& options) {
  const auto count = search.count(options.after.value_or(0));
  fmt::print("{}\n", count);
  return count;
}

std::int64_t printTimeline(EventStore& store, host::RecordSearch& search, const Question& question,
                           const QueryOptions& options) {
  constexpr int kRows = 8;
  constexpr std::size_t kUsualBars = 100;
  auto span = store.timeSpan(1, kEndOfSeqs);
  if (!span) return 0;
  span->from = std::max(span->from, question.times.from);
  span->until = std::min(span->until, question.times.until);
  if (span->from >= span->until) return 0;
  const bool draws = isTerminal(stdout) && !options.isJson;
  const auto bars = options.bars ? static_cast<std::size_t>(*options.bars)
                                 : (draws ? timelineColumns() : kUsualBars);
  const auto grid = roundGrid(*span, bars, draws ? localOffset(span->from) : 0);
  const auto timeline = search.timeline(grid.span, grid.bars);
  if (draws) {
    printTimelineChart(timeline, kRows);
  } else {
    printTimelineJson(timeline);
  }
  return recordsIn(timeline);
}

int printPlan(EventStore& store, const Question& question, const QueryOptions& options) {
  const auto plan = store.matchingSeqsQueryPlan(question.query, options.after.value_or(0));
  for (const auto& step : plan) printLine("{}", step);
  return 0;
}

}  // namespace

int query(const QueryOptions& options) {
  if (isFleet(options.database)) return queryFleet(options);
  auto store = host::openDatabase(options.database, options.source);
  const auto question = questionOf(options, store);
  host::failIfRefused(store, question.query, options.database);
  if (options.showsPlan) return printPlan(store, question, options);
  host::RecordSearch search(store, question.query, question.filter);
  const auto found = options.counts          ? printCount(search, options)
                     : options.showsTimeline ? printTimeline(store, search, question, options)
                                             : printRecords(store, question, options);
  host::failIfIncomplete(store, options.database);
  if (found > 0 || options.follows) return 0;
  flushOutput();  // the output must appear above the hint
  hintAt(store, options.text, question.typed);
  return 1;
}

}  // namespace cli
