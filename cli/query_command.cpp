// SPDX-License-Identifier: MIT
#include <fmt/format.h>
#include <poll.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <system_error>
#include <utility>

#include "commands.h"
#include "fleet_commands.h"
#include "host/database.h"
#include "host/failure.h"
#include "host/new_records.h"
#include "interrupt.h"
#include "output.h"
#include "record_printer.h"
#include "runeflow/query/query_parser.h"
#include "terminal.h"

namespace cli {

using runeflow::EventStore;
using runeflow::LogQuery;

namespace {

constexpr std::size_t kPageRecords = 1'000;
constexpr std::int64_t kFollowLockWait = 500;  // milliseconds; Ctrl-C waits for it
constexpr int kFollowMilliseconds = 50;

// The user's pager. While it runs, this process ignores Ctrl-C, which the pager handles, and
// SIGPIPE: if the user quits the pager early, only the printing ends.
class Pager {
 public:
  Pager() {
    const char* wanted = std::getenv("PAGER");  // NOLINT(concurrency-mt-unsafe)
    command_ = wanted && *wanted ? wanted : "less";
    // R shows colours; F ends at once if one page is enough. NOLINTNEXTLINE(concurrency-mt-unsafe)
    ::setenv("LESS", "FRX", 0);
    pipe_ = ::popen(command_.c_str(), "w");
    if (!pipe_)
      host::fail("cannot start the pager '{}'; set PAGER to one that is installed", command_);
    std::signal(SIGINT, SIG_IGN);
    std::signal(SIGPIPE, SIG_IGN);
  }
  ~Pager() {
    if (pipe_) ::pclose(pipe_);
  }
  Pager(const Pager&) = delete;
  Pager& operator=(const Pager&) = delete;

  std::FILE* stream() { return pipe_; }

  void wait() {
    constexpr int kNotFound = 127;  // the shell's exit code for a command that it cannot find
    const int status = ::pclose(std::exchange(pipe_, nullptr));
    if (WIFEXITED(status) && WEXITSTATUS(status) == kNotFound) {
      host::fail("cannot start the pager '{}'; set PAGER to one that is installed", command_);
    }
  }

 private:
  std::string command_;
  std::FILE* pipe_ = nullptr;
};

RecordFormat formatOf(const QueryOptions& options) {
  if (options.isJson) return RecordFormat::json;
  if (options.isCsv) return RecordFormat::csv;
  return isTerminal(stdout) ? RecordFormat::people : RecordFormat::plain;
}

void printRecords(EventStore& store, RecordPrinter& printer, const LogQuery& query,
                  std::span<const std::int64_t> seqs, const std::string& path) {
  while (!seqs.empty()) {
    const auto page = seqs.first(std::min(seqs.size(), kPageRecords));
    const auto records = store.fetch(page);
    printer.print(records);
    host::failIfMissing(store, query, page, records, path);
    seqs = seqs.subspan(page.size());
  }
}

std::span<const std::int64_t> chosen(std::span<const std::int64_t> seqs,
                                     const QueryOptions& options) {
  const auto atMost = [&](std::int64_t limit) {
    return std::min(seqs.size(), static_cast<std::size_t>(limit));
  };
  if (options.last) return seqs.last(atMost(*options.last));
  return options.first ? seqs.first(atMost(*options.first)) : seqs;
}

bool hasReader(std::FILE* out) {
  pollfd output{.fd = ::fileno(out), .events = 0, .revents = 0};
  return ::poll(&output, 1, 0) >= 0 && (output.revents & POLLERR) == 0;
}

void follow(EventStore& store, RecordPrinter& printer, const LogQuery& query, std::int64_t after,
            const std::string& path) {
  const Interrupt interrupt;
  store.setLockWait(std::make_shared<std::atomic<std::int64_t>>(kFollowLockWait));
  host::NewRecords news;
  do {
    const auto change = news.look(store);
    if (!change) host::failWith(change.error(), path);
    if (*change == host::NewRecords::Change::renumbered) after = 0;
    if (*change != host::NewRecords::Change::none) {
      const auto seqs = store.matchingSeqs(query, after);
      // A full pipe blocks the output, which Ctrl-C must be able to end.
      interrupt.unblockSignals();
      printRecords(store, printer, query, seqs, path);
      flushOutput();
      interrupt.blockSignals();
      // Records that were stored since the look are among the matches.
      after = std::max({after, news.newest(), seqs.empty() ? 0 : seqs.back()});
    }
    host::failIfIncomplete(store, path);
  } while (!interrupt.waitFor(kFollowMilliseconds) && hasReader(stdout));
}

int count(EventStore& store, const LogQuery& query, const QueryOptions& options) {
  const auto count =
      options.after ? static_cast<std::int64_t>(store.matchingSeqs(query, *options.after).size())
                    : store.countMatching(query);
  fmt::print("{}\n", count);
  host::failIfIncomplete(store, options.database);
  return count > 0 ? 0 : 1;
}

void printTo(std::FILE* out, EventStore& store, const LogQuery& query, const QueryOptions& options,
             std::span<const std::int64_t> seqs, std::int64_t followsFrom) {
  RecordPrinter printer(
      store.descriptor(), formatOf(options),
      {runeflow::QueryParser::highlightTerms(query.root), options.matchCase, showsColour(stdout)},
      out);
  printRecords(store, printer, query, seqs, options.database);
  if (!options.follows) return;
  follow(store, printer, query, seqs.empty() ? followsFrom : seqs.back(), options.database);
}

}  // namespace

int query(const QueryOptions& options) {
  if (isFleet(options.database)) return queryFleet(options);
  const auto after = options.after.value_or(0);
  auto store = host::openDatabase(options.database, options.source);
  const auto parsed =
      runeflow::QueryParser::parse(options.text, store.descriptor(), options.matchCase);
  host::failIfRefused(store, parsed, options.database);
  if (options.showsPlan) {
    const auto plan = store.matchingSeqsQueryPlan(parsed, after);
    for (const auto& step : plan) printLine("{}", step);
    return 0;
  }
  if (options.counts) return count(store, parsed, options);

  // --follow shows only new records unless the options ask for older ones.
  const bool wantsOld = !options.follows || options.after || options.last;
  // Read before the matches, so that records stored in between are shown, too.
  const auto followsFrom = std::max(store.maxSeq(), after);
  const auto seqs = wantsOld ? store.matchingSeqs(parsed, after) : std::vector<std::int64_t>();
  if (options.usesPager && isTerminal(stdout)) {
    Pager pager;
    try {
      printTo(pager.stream(), store, parsed, options, chosen(seqs, options), followsFrom);
    } catch (const std::system_error&) {
      // The user has quit the pager.
    }
    pager.wait();
  } else {
    printTo(stdout, store, parsed, options, chosen(seqs, options), followsFrom);
  }
  host::failIfIncomplete(store, options.database);
  return seqs.empty() && !options.follows ? 1 : 0;
}

}  // namespace cli
