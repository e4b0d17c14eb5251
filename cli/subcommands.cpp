// SPDX-License-Identifier: MIT
#include "subcommands.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <memory>
#include <vector>

#include "commands.h"
#include "host/byte_count.h"
#include "host/failure.h"
#include "host/log_kind.h"
#include "line_mistakes.h"
#include "terminal.h"

namespace cli {
namespace {

using host::fail;

constexpr std::int64_t kMostBars = 100'000;

std::string kindIds() {
  return host::joinKinds(&host::LogKind::id, " or ");
}

std::string kindTypes() {
  return host::joinKinds(&host::LogKind::id, "|");
}

// Local times are those of UTC from now on.
void useUtc() {
  // No other thread runs yet.
  ::setenv("TZ", "UTC0", 1);  // NOLINT(concurrency-mt-unsafe)
  ::tzset();
}

void chooseColour(const std::string& when) {
  if (when != "auto" && when != "always" && when != "never") {
    fail("--color is auto, always or never, not '{}'", when);
  }
  setColour(when == "always"  ? ColourWhen::always
            : when == "never" ? ColourWhen::never
                              : ColourWhen::automatic);
}

// A subcommand, and the options that parsing fills in.
template <class Options>
struct Subcommand {
  Subcommand(CLI::App& app, const char* name, const char* description)
      : command(app.add_subcommand(name, description)), options(std::make_shared<Options>()) {}

  void addDatabase() {
    command->add_option("DB", options->database, "The database, or the address of a fleet's table")
        ->required()
        ->type_name("");
  }

  void addSource() {
    const auto description =
        fmt::format("The kind of the records ({}), if the command cannot detect it", kindIds());
    command->add_option("--source", options->source, description)->type_name(kindTypes());
  }

  // For commands that read or show times.
  void addUtc() {
    command->add_flag_callback("--utc", useUtc, "Read and show times in UTC, not in local time")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  }

  // For commands that show more than sentences.
  void addDisplay(bool hasTimes = true) {
    if (hasTimes) addUtc();
    command
        ->add_option_function<std::string>(
            "--color", chooseColour,
            "When to print colours; always also keeps the form of a terminal for a pager")
        ->type_name("auto|always|never");
  }

  CLI::Option* addFlag(const char* name, bool Options::* flag, const char* description) {
    return command->add_flag(name, (*options).*flag, description);
  }

  // Makes parsing call `finish` to complete the options, and then `run`.
  void runs(
      int (*run)(const Options&), int& exitCode,
      std::function<void(Options&)> finish = [](Options&) {}) {
    command->callback([options = options, run, &exitCode, finish = std::move(finish)] {
      finish(*options);
      exitCode = run(*options);
    });
  }

  CLI::App* command;
  std::shared_ptr<Options> options;
};

CLI::Validator atLeast(std::int64_t smallest) {
  return {[smallest](const std::string& text) {
            std::int64_t number = 0;
            const char* end = text.data() + text.size();
            const auto parsed = std::from_chars(text.data(), end, number);
            const bool isFine = parsed.ec == std::errc() && parsed.ptr == end && number >= smallest;
            return isFine ? std::string()
                          : fmt::format("'{}' is not a whole number of {} or more", text, smallest);
          },
          ""};
}

void addCapture(CLI::App& app, int& exitCode) {
  Subcommand<CaptureOptions> capture(app, "capture",
                                     "Store the records of a log stream in a database");
  auto* command = capture.command;
  auto& options = *capture.options;
  auto maxBytes = std::make_shared<std::string>();
  command
      ->add_option("FILE", options.files,
                   "Logcat text or DLT recordings, also packed with gzip; - is standard input")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->type_name("");
  command->add_option("--db", options.database, "The database; created if it does not exist")
      ->required()
      ->type_name("PATH");
  command
      ->add_option(
          "--format", options.format,
          fmt::format("The kind of the files ({}), if the command cannot detect it", kindIds()))
      ->type_name(kindTypes());
  command
      ->add_option("--max-bytes", *maxBytes,
                   "Keep the database below this size by deleting its oldest records; units are "
                   "binary: 1K is 1024")
      ->type_name("N[K|M|G]");
  command->add_option("--dlt", options.dltTarget, "A DLT daemon (port 3490)")
      ->type_name("HOST[:PORT]");
  auto* adb = command->add_option("--adb", options.adbTarget, "An adb server (127.0.0.1:5037)");
  adb->type_name("[HOST[:PORT]]")->expected(0, 1);
  command->add_option("--serial", options.serial, "The Android device, if several are attached")
      ->type_name("NAME")
      ->needs(adb);
  command->add_option("--command", options.command, "The command to run on the Android device")
      ->type_name("TEXT")
      ->needs(adb)
      ->capture_default_str();
  capture.addFlag("--reconnect", &CaptureOptions::reconnects,
                  "Connect again when a live stream has ended");
  capture.addFlag("--again", &CaptureOptions::again,
                  "Also capture files whose records are stored already");
  capture.runs(cli::capture, exitCode, [adb, maxBytes](CaptureOptions& parsed) {
    parsed.isAdb = adb->count() > 0;
    if (!maxBytes->empty()) parsed.maxBytes = host::parseByteCount(*maxBytes);
  });
}

void excludeEach(CLI::Option* one, const std::vector<CLI::Option*>& others) {
  for (auto* other : others) one->excludes(other);
}

// The words of the query and the conditions beside it.
template <class Options>
void addConditions(Subcommand<Options>& query) {
  auto* command = query.command;
  QueryConditions& options = *query.options;
  command->add_option("QUERY", options.text, "Such as: 'level:warn \"disk full\" NOT tag:chatty'")
      ->type_name("");
  // Further words belong to the query. They are not a list option, because CLI11 would split
  // "[a,b]".
  command->allow_extras();
  command
      ->add_option("--since", options.since,
                   "Only records of this time or later: 2026-03-17T14:05 (local time; append Z or "
                   "+01:00 for a zone), 14:05 (today), -15m (before now) or end-15m (before the "
                   "newest record)")
      ->type_name("TIME");
  command->add_option("--until", options.until, "Only records before this time")->type_name("TIME");
  command
      ->add_option("--contains", options.contained,
                   "Only messages that contain the text, also within a word; the case of ASCII "
                   "letters is ignored")
      ->type_name("TEXT");
  command
      ->add_option("--regex", options.expression,
                   "Only messages that match the regular expression (RE2); (?i) ignores case")
      ->type_name("PATTERN");
  command->add_flag("--match-case", options.matchCase,
                    "Words of the query match with their exact case");
}

// Adds the words that were typed behind the first one to the query, and replaces saved queries.
void completeQuery(const CLI::App& command, const Words& words, const Defaults& defaults,
                   QueryConditions& parsed) {
  for (const auto& word : command.remaining()) {
    if (word == "--") continue;
    if (word.starts_with('-') && !words.isBehindOptions(word)) failForOption(command, word);
    parsed.text += ' ' + word;
  }
  parsed.text = withSavedQueries(parsed.text, defaults);
}

void addQueryContext(Subcommand<QueryOptions>& query, std::vector<CLI::Option*>& context) {
  auto* command = query.command;
  auto& options = *query.options;
  const auto add = [&](const char* names, std::optional<std::int64_t>& value, const char* text) {
    context.push_back(command->add_option(names, value, text)->type_name("N")->check(atLeast(0)));
  };
  add("-A,--after-context", options.behind, "Also N records after each match");
  add("-B,--before-context", options.before, "Also N records before each match");
  add("-C,--context", options.around, "Also N records before and after each match");
}

void addQuery(CLI::App& app, const Words& words, const Defaults& defaults, int& exitCode) {
  Subcommand<QueryOptions> query(app, "query", "Print the records that match a query");
  auto* command = query.command;
  auto& options = *query.options;
  query.addDatabase();
  addConditions(query);
  query.addDisplay();
  command
      ->add_option("--with", options.others,
                   "A further database; the records are merged by their times. May be repeated")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->allow_extra_args(false)
      ->type_name("DB");
  query.addFlag("--seq", &QueryOptions::showsSeq,
                "Print the seq of each record on a terminal, too");
  auto* after = command->add_option("--after", options.after, "Only records with a greater seq");
  after->type_name("SEQ")->check(atLeast(0));
  auto* first = command->add_option("--first", options.first, "Only the first N matches");
  first->type_name("N")->check(atLeast(1));
  auto* last = command->add_option("--last", options.last, "Only the last N matches");
  last->type_name("N")->check(atLeast(1));
  auto* reverse = query.addFlag("--reverse", &QueryOptions::isReversed, "Print the newest first");
  std::vector<CLI::Option*> context;
  addQueryContext(query, context);
  auto* follows = query.addFlag("--follow", &QueryOptions::follows,
                                "Print new matches as they are stored, until Ctrl-C");
  auto* counts = query.addFlag("--count", &QueryOptions::counts, "Print the number of matches");
  auto* timeline = query.addFlag("--timeline", &QueryOptions::showsTimeline,
                                 "Print the number of matches over time: as bars on a terminal, "
                                 "otherwise as one JSON object a line for each bar");
  command->add_option("--bars", options.bars, "At most N bars in a timeline")
      ->type_name("N")
      ->check(CLI::Range(std::int64_t{1}, kMostBars))
      ->needs(timeline);
  auto* json = query.addFlag("--json", &QueryOptions::isJson, "One JSON object a line");
  auto* csv = query.addFlag("--csv", &QueryOptions::isCsv, "CSV (RFC 4180) with a header line");
  auto* pager = query.addFlag("--pager", &QueryOptions::usesPager, "Show the records in $PAGER");
  query.addSource();
  auto* plan =
      query.addFlag("--plan", &QueryOptions::showsPlan, "Print SQLite's plan for the query");
  first->excludes(last);
  json->excludes(csv);
  excludeEach(follows, {first, reverse, pager});
  excludeEach(reverse, context);
  timeline->excludes(after);
  // These answer with something else than records.
  excludeEach(counts, {timeline, plan, json});
  excludeEach(plan, {timeline, json});
  for (auto* answer : {counts, timeline, plan}) {
    excludeEach(answer, context);
    excludeEach(answer, {first, last, reverse, follows, csv, pager});
  }
  command->footer(
      "If the output is not a terminal, every record is one line: seq (its number), time in UTC, "
      "level, fields and message, separated by tabs. With -A, -B or -C, a first column holds > for "
      "a match and - for its context, and -- separates groups.");
  query.runs(cli::query, exitCode, [command, &words, &defaults](QueryOptions& parsed) {
    completeQuery(*command, words, defaults, parsed);
  });
}

void addExport(CLI::App& app, const Words& words, const Defaults& defaults, int& exitCode) {
  Subcommand<ExportOptions> copy(app, "export", "Store the records that match in a new database");
  auto* command = copy.command;
  copy.addDatabase();
  addConditions(copy);
  command->add_option("--db", copy.options->target, "The new database")
      ->required()
      ->type_name("PATH");
  copy.addUtc();
  copy.addSource();
  copy.runs(cli::exportRecords, exitCode, [command, &words, &defaults](ExportOptions& parsed) {
    completeQuery(*command, words, defaults, parsed);
  });
}

void addValues(CLI::App& app, const Words&, const Defaults& defaults, int& exitCode) {
  Subcommand<ValuesOptions> values(app, "values", "Print the most frequent values of a field");
  auto* command = values.command;
  auto& options = *values.options;
  values.addDatabase();
  command
      ->add_option("FIELD", options.fields,
                   "Such as tag, pid, app or level; several give a list each")
      ->required()
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->type_name("");
  command->add_option("--matching", options.matching, "Only records that match this query")
      ->type_name("QUERY");
  command->add_option("--prefix", options.prefix, "Only values that begin with this text")
      ->type_name("TEXT");
  command->add_option("--limit", options.limit, "At most N values; negative for all")
      ->type_name("N")
      ->capture_default_str();
  values.addSource();
  values.addFlag("--json", &ValuesOptions::isJson, "One JSON object a line");
  values.addDisplay(false);
  values.runs(cli::values, exitCode, [&defaults](ValuesOptions& parsed) {
    parsed.matching = withSavedQueries(parsed.matching, defaults);
  });
}

void addInfo(CLI::App& app, int& exitCode) {
  Subcommand<InfoOptions> info(app, "info", "Describe a database");
  info.addDatabase();
  info.addSource();
  info.addFlag("--json", &InfoOptions::isJson, "One JSON object");
  info.addDisplay();
  info.runs(cli::info, exitCode);
}

void addClear(CLI::App& app, int& exitCode) {
  Subcommand<ClearOptions> clear(app, "clear", "Delete every record of a database");
  clear.addDatabase();
  clear.addSource();
  clear.addFlag("--yes", &ClearOptions::isSure, "Do not ask");
  clear.runs(cli::clear, exitCode);
}

void addCheck(CLI::App& app, int& exitCode) {
  Subcommand<CheckOptions> check(app, "check", "Check a database and its full-text index");
  check.addDatabase();
  check.addFlag("--repair", &CheckOptions::repairs, "Rebuild the full-text index");
  check.runs(cli::check, exitCode);
}

void addShip(CLI::App& app, int& exitCode) {
  Subcommand<ShipOptions> ship(app, "ship",
                               "Send the records of a database to a table of ClickHouse");
  auto* command = ship.command;
  auto& options = *ship.options;
  command->add_option("DB", options.database, "The database; optional with --create")
      ->type_name("");
  command->add_option("--to", options.table, "The table: http[s]://HOST[:8123]/DATABASE.TABLE")
      ->required()
      ->type_name("URL");
  command
      ->add_option("--name", options.capture,
                   "The name of the capture in the table; the default is HOST/DB")
      ->type_name("CAPTURE");
  ship.addSource();
  auto* follow = ship.addFlag("--follow", &ShipOptions::follows,
                              "Send new records as they are stored, until Ctrl-C");
  auto every = std::make_shared<std::int64_t>(1);
  command->add_option("--every", *every, "With --follow: seconds between two blocks of records")
      ->type_name("N")
      ->check(CLI::Range(1, 3'600))
      ->needs(follow)
      ->capture_default_str();
  ship.addFlag("--create", &ShipOptions::creates, "Create the table if it does not exist");
  command
      ->add_option("--cluster", options.cluster,
                   "With --create: spread the table over this cluster of the server")
      ->type_name("NAME");
  command->footer(
      "User and password come from RUNEFLOW_USER and RUNEFLOW_PASSWORD, or from the two lines of "
      "the file that RUNEFLOW_LOGIN_FILE names. RUNEFLOW_CA_FILE names a file of certificates to "
      "trust. "
      "query, values and info take the address of a table in the place of a database.");
  ship.runs(cli::ship, exitCode, [every](ShipOptions& parsed) {
    parsed.everyMilliseconds = static_cast<int>(*every * 1'000);
  });
}

void addSources(CLI::App& app, int& exitCode) {
  Subcommand<SourcesOptions> sources(app, "sources",
                                     "List this machine, simulators and devices that log");
  sources.addFlag("--json", &SourcesOptions::isJson, "One JSON object a line");
  sources.runs(cli::sources, exitCode);
}

void addView(CLI::App& app, int& exitCode) {
  Subcommand<ViewCommandOptions> view(app, "view", "Show a database in the browser");
  auto* command = view.command;
  auto& options = *view.options;
  command->add_option("DB|LOG", options.path, "A database, or a log to capture into LOG.db")
      ->type_name("");
  view.addSource();
  command->add_option("--port", options.port, "The port on 127.0.0.1")
      ->type_name("N")
      ->check(CLI::Range(1, 65'535));
  view.addFlag("--no-open", &ViewCommandOptions::staysClosed, "Do not open a browser");
  view.runs(cli::view, exitCode);
}

}  // namespace

void addSubcommands(CLI::App& app, const Words& words, const Defaults& defaults, int& exitCode) {
  addCapture(app, exitCode);
  addQuery(app, words, defaults, exitCode);
  addValues(app, words, defaults, exitCode);
  addInfo(app, exitCode);
  addExport(app, words, defaults, exitCode);
  for (auto* add : {addClear, addCheck, addShip, addSources, addView}) add(app, exitCode);
}

}  // namespace cli
