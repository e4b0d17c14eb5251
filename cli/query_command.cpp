#include <poll.h>
#include <sys/wait.h>

#include <algorithm>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <system_error>
#include <utility>

#include "commands.h"
#include "database.h"
#include "failure.h"
#include "interrupt.h"
#include "record_printer.h"
#include "runeflow/query/query_parser.h"
#include "terminal.h"

namespace cli {

using runeflow::EventStore;
using runeflow::LogQuery;

namespace {

constexpr std::size_t kPageRecords = 1'000;
constexpr int kFollowMilliseconds = 200;

struct QueryOptions {
  std::string database;
  std::string text;
  std::string source;
  std::int64_t after = 0;
  std::int64_t first = 0;
  std::int64_t last = 0;
  bool hasAfter = false;
  bool counts = false;
  bool follows = false;
  bool matchCase = false;
  bool isJson = false;
  bool isCsv = false;
  bool showsPlan = false;
  bool usesPager = false;
};

// The user's pager, as the stream to print on. While it runs Ctrl-C is the pager's, and its leaving
// early ends the printing, not the process.
class Pager {
 public:
  Pager() {
    const char* wanted = std::getenv("PAGER");  // NOLINT(concurrency-mt-unsafe)
    command_ = wanted && *wanted ? wanted : "less";
    // Shows colours, and needs no key for a single page. NOLINTNEXTLINE(concurrency-mt-unsafe)
    ::setenv("LESS", "FRX", 0);
    pipe_ = ::popen(command_.c_str(), "w");
    if (!pipe_) fail("cannot start the pager '{}'; set PAGER to one that is installed", command_);
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
    constexpr int kNotFound = 127;  // the shell's answer for a command that it cannot find
    const int status = ::pclose(std::exchange(pipe_, nullptr));
    if (WIFEXITED(status) && WEXITSTATUS(status) == kNotFound) {
      fail("cannot start the pager '{}'; set PAGER to one that is installed", command_);
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

void printRecords(EventStore& store, RecordPrinter& printer, std::span<const std::int64_t> seqs) {
  while (!seqs.empty()) {
    const auto page = seqs.first(std::min(seqs.size(), kPageRecords));
    printer.print(store.fetch(page));
    seqs = seqs.subspan(page.size());
  }
}

std::span<const std::int64_t> chosen(std::span<const std::int64_t> seqs,
                                     const QueryOptions& options) {
  const auto atMost = [&](std::int64_t limit) {
    return limit > 0 ? std::min(seqs.size(), static_cast<std::size_t>(limit)) : seqs.size();
  };
  return options.last > 0 ? seqs.last(atMost(options.last)) : seqs.first(atMost(options.first));
}

bool hasReader(std::FILE* out) {
  pollfd output{.fd = ::fileno(out), .events = 0, .revents = 0};
  return ::poll(&output, 1, 0) >= 0 && (output.revents & POLLERR) == 0;
}

using Records = std::vector<runeflow::FetchedRow>;

Records recordAt(EventStore& store, std::int64_t seq) {
  return store.fetchRange(seq, seq);
}

// Whether the store was cleared, which numbers its records anew, since the newest one was `newest`.
bool isRenumbered(EventStore& store, const Records& newest, const Records& latest) {
  if (newest.empty()) return false;
  const auto seq = newest.front().seq;
  if (latest.front().seq < seq) return true;
  const auto now = recordAt(store, seq);
  return !now.empty() && now != newest;
}

void follow(EventStore& store, RecordPrinter& printer, const LogQuery& query, std::int64_t after) {
  const Interrupt interrupt;
  Records newest;
  do {
    auto latest = recordAt(store, store.maxSeq());
    if (latest.empty()) continue;
    if (isRenumbered(store, newest, latest)) after = 0;
    newest = std::move(latest);
    const auto seqs = store.matchingSeqs(query, after);
    printRecords(store, printer, seqs);
    flushOutput();
    if (!seqs.empty()) after = seqs.back();
  } while (!interrupt.waitFor(kFollowMilliseconds) && hasReader(stdout));
}

int count(EventStore& store, const LogQuery& query, const QueryOptions& options) {
  const auto count =
      options.after > 0 ? static_cast<std::int64_t>(store.matchingSeqs(query, options.after).size())
                        : store.countMatching(query);
  fmt::print("{}\n", count);
  return count > 0 ? 0 : 1;
}

void printTo(std::FILE* out, EventStore& store, const LogQuery& query, const QueryOptions& options,
             std::span<const std::int64_t> seqs, std::int64_t followsFrom) {
  RecordPrinter printer(
      store.descriptor(), formatOf(options),
      {runeflow::QueryParser::highlightTerms(query.root), options.matchCase, showsColour(stdout)},
      out);
  printRecords(store, printer, seqs);
  if (!options.follows) return;
  follow(store, printer, query, seqs.empty() ? followsFrom : seqs.back());
}

int query(const QueryOptions& options) {
  auto store = openDatabase(options.database, options.source);
  const auto parsed =
      runeflow::QueryParser::parse(options.text, store.descriptor(), options.matchCase);
  requireThatSqliteTakes(store, parsed, options.database);
  if (options.showsPlan) {
    const auto plan = store.matchingSeqsQueryPlan(parsed, options.after);
    fmt::print("{}\n", fmt::join(plan, "\n"));
    return 0;
  }
  if (options.counts) return count(store, parsed, options);

  // Following begins now, unless older records are asked for.
  const bool wantsOld = !options.follows || options.hasAfter || options.last > 0;
  // Known before the matches are: none that is stored in between gets lost.
  const auto followsFrom = std::max(store.maxSeq(), options.after);
  const auto seqs =
      wantsOld ? store.matchingSeqs(parsed, options.after) : std::vector<std::int64_t>();
  if (options.usesPager && isTerminal(stdout)) {
    Pager pager;
    try {
      printTo(pager.stream(), store, parsed, options, chosen(seqs, options), followsFrom);
    } catch (const std::system_error&) {
      // The user has left the pager.
    }
    pager.wait();
  } else {
    printTo(stdout, store, parsed, options, chosen(seqs, options), followsFrom);
  }
  return seqs.empty() && !options.follows ? 1 : 0;
}

CLI::Validator atLeast(std::int64_t smallest) {
  return {[smallest](const std::string& text) {
            std::int64_t number = 0;
            const char* end = text.data() + text.size();
            const auto parsed = std::from_chars(text.data(), end, number);
            const bool isFine = parsed.ec == std::errc() && parsed.ptr == end && number >= smallest;
            return isFine ? std::string()
                          : fmt::format("'{}' is no whole number from {} on", text, smallest);
          },
          ""};
}

}  // namespace

void addQueryCommand(CLI::App& app, int& exitCode) {
  auto* command = app.add_subcommand("query", "Print the records that match a query");
  auto options = std::make_shared<QueryOptions>();
  command->add_option("DB", options->database, "The database")->required()->type_name("");
  command->add_option("QUERY", options->text, "Such as: 'level:warn \"disk full\" NOT tag:chatty'")
      ->type_name("");
  // More words belong to the query. As a list of texts CLI11 would take "[a,b]" apart.
  command->allow_extras();
  command->add_option("--source", options->source, "logcat or dlt, when the indexes do not say")
      ->type_name("KIND");
  auto* after = command->add_option("--after", options->after, "Only records with a greater seq")
                    ->type_name("SEQ")
                    ->check(atLeast(0));
  auto* first = command->add_option("--first", options->first, "Only the first N matches");
  first->type_name("N")->check(atLeast(1));
  auto* last = command->add_option("--last", options->last, "Only the last N matches");
  last->type_name("N")->check(atLeast(1))->excludes(first);
  auto* counts = command->add_flag("--count", options->counts, "Print how many records match");
  auto* follows = command->add_flag("--follow", options->follows,
                                    "Print new matches as they are stored, until Ctrl-C");
  follows->excludes(first);
  command->add_flag("--match-case", options->matchCase, "Words match with their exact case");
  auto* json = command->add_flag("--json", options->isJson, "One JSON object a line");
  auto* csv = command->add_flag("--csv", options->isCsv, "RFC 4180")->excludes(json);
  auto* pager = command->add_flag("--pager", options->usesPager, "Show the records in $PAGER");
  pager->excludes(follows);
  auto* plan = command->add_flag("--plan", options->showsPlan, "Print SQLite's plan for the query");
  for (auto* other : {first, last, follows, json, csv, pager}) {
    counts->excludes(other);
    plan->excludes(other);
  }
  plan->excludes(counts);
  command->footer(
      "Off a terminal every record is one line: seq, time in UTC, level, the source's fields and "
      "the message, divided by tabs.");
  command->callback([=, &exitCode] {
    options->hasAfter = after->count() > 0;
    for (const auto& word : command->remaining()) {
      if (word.starts_with('-')) fail("there is no option {}; see --help", word);
      options->text += ' ' + word;
    }
    exitCode = query(*options);
  });
}

}  // namespace cli
