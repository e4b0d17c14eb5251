#include <algorithm>
#include <cstdlib>
#include <memory>

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
  std::size_t first = 0;
  std::size_t last = 0;
  bool hasAfter = false;
  bool counts = false;
  bool follows = false;
  bool matchCase = false;
  bool isJson = false;
  bool isCsv = false;
  bool showsPlan = false;
  bool usesPager = false;
};

struct ClosePipe {
  void operator()(std::FILE* pipe) const { ::pclose(pipe); }
};

// The user's pager on a terminal, when asked for.
std::unique_ptr<std::FILE, ClosePipe> openPager(const QueryOptions& options) {
  if (!options.usesPager || !isTerminal(stdout)) return nullptr;
  const char* pager = std::getenv("PAGER");  // NOLINT(concurrency-mt-unsafe)
  const char* command = pager && *pager ? pager : "less -R";
  std::unique_ptr<std::FILE, ClosePipe> pipe(::popen(command, "w"));
  if (!pipe) fail("cannot start the pager '{}'; set PAGER to one that is installed", command);
  return pipe;
}

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
  if (options.first > 0 && seqs.size() > options.first) seqs = seqs.first(options.first);
  if (options.last > 0 && seqs.size() > options.last) seqs = seqs.last(options.last);
  return seqs;
}

void follow(EventStore& store, RecordPrinter& printer, std::FILE* out, const LogQuery& query,
            std::int64_t after, const Interrupt& interrupt) {
  do {
    if (store.maxSeq() < after) after = 0;  // cleared in the meantime: numbers start again
    const auto seqs = store.matchingSeqs(query, after);
    printRecords(store, printer, seqs);
    std::fflush(out);
    if (!seqs.empty()) after = seqs.back();
  } while (!interrupt.waitFor(kFollowMilliseconds));
}

int query(const QueryOptions& options) {
  auto store = openDatabase(options.database, options.source);
  const auto parsed =
      runeflow::QueryParser::parse(options.text, store.descriptor(), options.matchCase);
  if (options.showsPlan) {
    for (const auto& line : store.matchingSeqsQueryPlan(parsed, options.after))
      fmt::print("{}\n", line);
    return 0;
  }
  if (options.counts) {
    const auto count =
        options.hasAfter
            ? static_cast<std::int64_t>(store.matchingSeqs(parsed, options.after).size())
            : store.countMatching(parsed);
    fmt::print("{}\n", count);
    return count > 0 ? 0 : 1;
  }

  const auto pager = openPager(options);
  std::FILE* out = pager ? pager.get() : stdout;
  RecordPrinter printer(
      store.descriptor(), formatOf(options),
      {runeflow::QueryParser::highlightTerms(parsed.root), options.matchCase, showsColour(stdout)},
      out);
  // Following begins now, unless older records are asked for.
  const bool wantsOld =
      !options.follows || options.hasAfter || options.first > 0 || options.last > 0;
  const auto newest = store.maxSeq();
  const auto seqs =
      wantsOld ? store.matchingSeqs(parsed, options.after) : std::vector<std::int64_t>();
  printRecords(store, printer, chosen(seqs, options));
  if (options.follows) {
    const Interrupt interrupt;
    follow(store, printer, out, parsed, seqs.empty() ? newest : seqs.back(), interrupt);
    return 0;
  }
  return seqs.empty() ? 1 : 0;
}

}  // namespace

void addQueryCommand(CLI::App& app, int& exitCode) {
  auto* command = app.add_subcommand("query", "Print the records that match a query");
  auto options = std::make_shared<QueryOptions>();
  command->add_option("DB", options->database, "The database")->required();
  command->add_option("QUERY", options->text, "Such as: level:warn \"disk full\" NOT tag:chatty");
  command->add_option("--source", options->source, "logcat or dlt, when the indexes do not say");
  auto* after = command->add_option("--after", options->after, "Only records with a greater seq");
  auto* first = command->add_option("--first", options->first, "Only the first N matches");
  command->add_option("--last", options->last, "Only the last N matches")->excludes(first);
  command->add_flag("--count", options->counts, "Print how many records match");
  command->add_flag("--follow", options->follows,
                    "Print new matches as they are stored, until Ctrl-C");
  command->add_flag("--match-case", options->matchCase, "Words match with their exact case");
  auto* json = command->add_flag("--json", options->isJson, "One JSON object a line");
  command->add_flag("--csv", options->isCsv, "RFC 4180")->excludes(json);
  command->add_flag("--plan", options->showsPlan, "Print SQLite's plan for the query");
  command->add_flag("--pager", options->usesPager, "Show the records in $PAGER");
  command->callback([=, &exitCode] {
    options->hasAfter = after->count() > 0;
    exitCode = query(*options);
  });
}

}  // namespace cli
