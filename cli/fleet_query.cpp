// SPDX-License-Identifier: MIT

#include <fmt/format.h>
#include <poll.h>

#include <string>

#include "fleet/clause.h"
#include "fleet/kinds.h"
#include "fleet/reader.h"
#include "fleet_commands.h"
#include "fleet_printer.h"
#include "host/failure.h"
#include "host/terminal_text.h"
#include "interrupt.h"
#include "output.h"
#include "query_times.h"
#include "runeflow/query/query_parser.h"
#include "runeflow/store/word_marks.h"
#include "terminal.h"

namespace cli {

using fleet::Record;

namespace {

constexpr int kFollowMilliseconds = 500;

void refuseWhatNeedsADatabase(const QueryOptions& options) {
  const auto refuse = [](bool isGiven, const char* option) {
    if (isGiven) host::fail("{} works with a local database, not with a table of a fleet", option);
  };
  refuse(options.showsPlan, "--plan");
  refuse(options.usesPager, "--pager");
  refuse(!options.source.empty(), "--source");
  refuse(options.contained.has_value(), "--contains");
  refuse(options.expression.has_value(), "--regex");
  refuse(options.around || options.before || options.behind, "-A, -B or -C");
  refuse(options.isReversed, "--reverse");
  refuse(options.showsTimeline, "--timeline");
  refuse(!options.others.empty(), "--with");
  refuse(options.showsSeq, "--seq");
}

fleet::Question questionOf(const QueryOptions& options, fleet::Reader& reader) {
  fleet::Question question{
      .text = options.text, .matchCase = options.matchCase, .after = options.after};
  if (options.since.empty() && options.until.empty()) return question;
  const auto times =
      timesOf(options, [&] { return reader.newestTime().value_or(microsecondsNow()); });
  if (!options.since.empty()) question.since = times.from;
  if (!options.until.empty()) question.until = times.until;
  return question;
}

RecordFormat formatOf(const QueryOptions& options) {
  if (options.isJson) return RecordFormat::json;
  if (options.isCsv) return RecordFormat::csv;
  return isForPeople() ? RecordFormat::people : RecordFormat::plain;
}

// The words that any kind of record is searched for. The kinds differ only in words that name a
// field of some of them.
FleetPrinter::Marked highlighter(const QueryOptions& options, bool usesColour) {
  if (!usesColour) return [](std::string_view message) { return host::terminalField(message); };
  const auto query = runeflow::QueryParser::parse(
      options.text, fleet::descriptorOf(fleet::kindIds().front()), options.matchCase);
  const auto marks = std::make_shared<runeflow::WordMarks>(query, options.matchCase);
  return [marks](std::string_view message) {
    std::string line;
    std::size_t at = 0;
    for (const auto& [begin, end] : marks->in(message)) {
      line += host::terminalField(message.substr(at, begin - at));
      line += fmt::format("{}{}{}", colour::kHighlight,
                          host::terminalField(message.substr(begin, end - begin)), colour::kReset);
      at = end;
    }
    return line + host::terminalField(message.substr(at));
  };
}

bool hasReader() {
  pollfd output{.fd = ::fileno(stdout), .events = 0, .revents = 0};
  return ::poll(&output, 1, 0) >= 0 && (output.revents & POLLERR) == 0;
}

void follow(fleet::Follower& follower, const std::string& condition, FleetPrinter& printer,
            const Interrupt& interrupt) {
  const auto poll = [&] {
    follower.poll(condition, [&](const Record& record) {
      // A full pipe blocks the output, which Ctrl-C must be able to end.
      interrupt.unblockSignals();
      printer.add(record);
      interrupt.blockSignals();
      return true;
    });
  };
  try {
    do {
      fleet::retrying(
          poll, [](const std::string& sentence) { say("{}", sentence); },
          [&](int milliseconds) { return interrupt.waitFor(milliseconds); });
      interrupt.unblockSignals();
      printer.flush();
      flushOutput();
      interrupt.blockSignals();
    } while (!interrupt.waitFor(kFollowMilliseconds) && hasReader());
  } catch (const fleet::Interrupted&) {
    printer.flush();
  }
}

int printMatches(fleet::Reader& reader, const std::string& condition, const QueryOptions& options,
                 FleetPrinter& printer) {
  std::int64_t left = options.first.value_or(0);
  bool found = false;
  const auto print = [&](const Record& record) {
    found = true;
    printer.add(record);
    return !options.first || --left > 0;
  };
  if (options.last) {
    reader.forNewest(condition, *options.last, print);
  } else {
    reader.forEach(condition, print);
  }
  printer.flush();
  return found ? 0 : 1;
}

int followMatches(fleet::Reader& reader, const std::string& condition, const QueryOptions& options,
                  FleetPrinter& printer, const Interrupt& interrupt) {
  fleet::Follower follower(reader);
  const auto printOld = [&](const Record& record) {
    if (!follower.willPass(record)) printer.add(record);
    return true;
  };
  if (options.last) {
    reader.forNewest(condition, *options.last, printOld);
  } else if (options.after || !options.since.empty()) {
    reader.forEach(condition, printOld);
  }
  printer.flush();
  flushOutput();
  follow(follower, condition, printer, interrupt);
  return 0;
}

}  // namespace

bool isFleet(const std::string& database) {
  return fleet::isAddress(database);
}

int queryFleet(const QueryOptions& options) {
  refuseWhatNeedsADatabase(options);
  const auto address = fleet::parseAddress(options.database);
  const auto login = fleet::readLogin();
  const bool usesColour = showsColour(stdout);
  if (options.follows) {
    const Interrupt interrupt;
    fleet::Engine engine(address, login, [&] { return interrupt.isRequested(); });
    FleetPrinter printer(formatOf(options), usesColour, highlighter(options, usesColour), stdout);
    fleet::Reader reader(engine);
    return followMatches(reader, reader.condition(questionOf(options, reader)), options, printer,
                         interrupt);
  }
  fleet::Engine engine(address, login);
  fleet::Reader reader(engine);
  const auto condition = reader.condition(questionOf(options, reader));
  if (options.counts) {
    const auto count = reader.count(condition);
    fmt::print("{}\n", count);
    return count > 0 ? 0 : 1;
  }
  FleetPrinter printer(formatOf(options), usesColour, highlighter(options, usesColour), stdout);
  return printMatches(reader, condition, options, printer);
}

}  // namespace cli
