// SPDX-License-Identifier: MIT
#include "command_line.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "command_description.h"
#include "commands.h"
#include "completion.h"
#include "defaults.h"
#include "host/byte_count.h"
#include "host/database.h"
#include "host/failure.h"
#include "host/log_kind.h"
#include "host/query_mistakes.h"
#include "host/stream.h"
#include "manual.h"
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

// The words of the command line after the name of the program.
class Words {
 public:
  Words(int argc, char** argv) : all_(argv + std::min(argc, 1), argv + argc) {
    optionsEnd_ = static_cast<std::size_t>(std::ranges::find(all_, "--") - all_.begin());
  }

  const std::vector<std::string>& all() const { return all_; }

  // Returns those that may be options: the words before "--".
  std::span<const std::string> options() const { return std::span(all_).first(optionsEnd_); }

  // Returns whether the word is typed after "--", where nothing is an option.
  bool isBehindOptions(const std::string& word) const {
    const auto others = std::span(all_).subspan(optionsEnd_);
    return std::ranges::find(others, word) != others.end();
  }

 private:
  std::vector<std::string> all_;
  std::size_t optionsEnd_ = 0;
};

// Fails for an option that the command does not have.
[[noreturn]] void failForOption(const CLI::App& command, const std::string& word) {
  const auto name = word.substr(0, word.find('='));
  std::vector<std::string> names;
  for (const auto* option : command.get_options()) {
    for (const auto& known : option->get_lnames()) names.push_back("--" + known);
  }
  const auto near = host::nearest(name, names);
  const auto help = command.get_parent() ? command.get_name() + " --help" : "--help";
  if (near.empty()) fail("there is no option {}; see runeflow {}", name, help);
  fail("there is no option {}; did you mean {}? See runeflow {}", name, near, help);
}

// Fails for a line without a subcommand.
[[noreturn]] void failForCommand(const CLI::App& app, const Words& words) {
  std::vector<std::string> names;
  for (const auto* command : app.get_subcommands([](const CLI::App*) { return true; })) {
    if (!command->get_group().empty()) names.push_back(command->get_name());
  }
  const auto typed = words.options();
  const auto first =
      std::ranges::find_if(typed, [](const std::string& word) { return !word.starts_with('-'); });
  if (first == typed.end()) {
    if (!typed.empty()) failForOption(app, typed.front());
    fail("name a command: {}; see --help", fmt::join(names, ", "));
  }
  if (const auto near = host::nearest(*first, names); !near.empty()) {
    fail("there is no command '{}'; did you mean {}? See --help", *first, near);
  }
  if (host::isDatabaseFile(*first)) {
    fail("'{0}' is a database; query it with: runeflow query {0}", *first);
  }
  if (const auto* kind = host::kindOfFile(*first)) {
    fail("'{0}' is {1}; capture it first: runeflow capture {0} --db {0}.db", *first, kind->form);
  }
  fail("there is no command '{}'; the commands are {}", *first, fmt::join(names, ", "));
}

// Fails for a line that could not be parsed.
[[noreturn]] void failForLine(const CLI::App& app, const Words& words,
                              const CLI::ParseError& error) {
  const auto chosen = app.get_subcommands();
  if (chosen.empty()) failForCommand(app, words);
  const auto& command = *chosen.front();
  const bool isExtra = error.get_exit_code() == static_cast<int>(CLI::ExitCodes::ExtrasError);
  for (const auto& word : words.options()) {
    const bool isOption = word.size() > 2 && word.starts_with("--");
    const auto name = word.substr(0, word.find('='));
    if (isExtra && isOption && !command.get_option_no_throw(name)) failForOption(command, word);
  }
  fail("{}; see runeflow {} --help", error.what(), command.get_name());
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

// The columns that CLI11 would wrap are those of the manual page.
OptionDescription describe(const CLI::Option& option) {
  OptionDescription described{
      .names = {},
      .type = option.get_type_name(),
      .text = option.get_description(),
      .usual = option.get_default_str(),
      .isArgument = option.get_positional(),
      .isRequired = option.get_required(),
      .isRepeatable = option.get_multi_option_policy() == CLI::MultiOptionPolicy::TakeAll};
  if (described.isArgument) described.names.push_back(option.get_name());
  for (const auto& name : option.get_snames()) described.names.push_back("-" + name);
  for (const auto& name : option.get_lnames()) described.names.push_back("--" + name);
  return described;
}

CommandDescription describe(const CLI::App& command) {
  CommandDescription described{.name = command.get_parent() ? command.get_name() : "",
                               .text = command.get_description(),
                               .footer = command.get_footer(),
                               .options = {}};
  while (described.footer.ends_with('\n')) described.footer.pop_back();
  for (const auto* option : command.get_options()) {
    if (!option->get_group().empty()) described.options.push_back(describe(*option));
  }
  return described;
}

std::vector<CLI::App*> visibleCommands(CLI::App& app) {
  return app.get_subcommands([](const CLI::App* command) { return !command->get_group().empty(); });
}

ProgramDescription describeProgram(CLI::App& app) {
  ProgramDescription program = {describe(app)};
  for (const auto* command : visibleCommands(app)) program.push_back(describe(*command));
  return program;
}

// A command for the build. The help does not list it.
void addManual(CLI::App& app) {
  auto folder = std::make_shared<std::string>();
  auto* manual = app.add_subcommand("manual", "Write the manual pages")->group("");
  manual->add_option("FOLDER", *folder)->required();
  manual->callback([&app, folder] { writeManual(describeProgram(app), *folder); });
}

// Returns the option that a word of the line names, or null.
const CLI::Option* optionOf(const CLI::App& command, const std::string& word) {
  if (word.size() < 2 || !word.starts_with('-')) return nullptr;
  const auto* option = command.get_option_no_throw(word.substr(0, word.find('=')));
  return option || word.starts_with("--") ? option : command.get_option_no_throw(word.substr(0, 2));
}

// Returns whether the two cannot be used together, or are the same.
bool conflict(const CLI::Option* one, const CLI::Option* other) {
  return one == other || one->get_excludes().contains(const_cast<CLI::Option*>(other)) ||
         other->get_excludes().contains(const_cast<CLI::Option*>(one));
}

// Returns the user's defaults for the command as words. An option of the line, or an earlier
// default, sets aside those that it repeats or excludes.
std::vector<std::string> defaultWords(CLI::App& app, const CLI::App& command, const Words& words,
                                      const Defaults& defaults) {
  std::vector<const CLI::Option*> chosen;
  for (const auto& word : words.options()) {
    if (const auto* option = optionOf(command, word)) chosen.push_back(option);
  }
  std::vector<std::string> added;
  for (const auto& [name, value, hasValue, place] : defaults.options) {
    const bool isKnown = std::ranges::any_of(visibleCommands(app), [&](const CLI::App* other) {
      return other->get_option_no_throw(name) != nullptr;
    });
    if (!isKnown || name == "--help") fail("{}: no command has the option {}", place, name);
    const auto* option = command.get_option_no_throw(name);
    if (!option) continue;
    const bool isSetAside = std::ranges::any_of(
        chosen, [option](const CLI::Option* other) { return conflict(option, other); });
    const auto& needed = option->get_needs();
    const bool lacksOther = std::ranges::any_of(needed, [&](const CLI::Option* other) {
      return std::ranges::find(chosen, other) == chosen.end();
    });
    if (isSetAside || lacksOther) continue;
    chosen.push_back(option);
    added.push_back(hasValue ? fmt::format("{}={}", name, value) : name);
  }
  return added;
}

// Returns the words of the line with the user's defaults behind the name of the command.
std::vector<std::string> withDefaults(CLI::App& app, const Words& words, const Defaults& defaults) {
  auto line = words.all();
  const auto typed = words.options();
  const auto first =
      std::ranges::find_if(typed, [](const std::string& word) { return !word.starts_with('-'); });
  if (first == typed.end()) return line;
  const auto commands = visibleCommands(app);
  const auto command = std::ranges::find(commands, *first, &CLI::App::get_name);
  if (command == commands.end()) return line;
  const auto added = defaultWords(app, **command, words, defaults);
  line.insert(line.begin() + (first - typed.begin()) + 1, added.begin(), added.end());
  return line;
}

}  // namespace

int runCommandLine(int argc, char** argv) {
  // Named here, because CLI11 would print the first argument, which the caller chooses, in the
  // help.
  CLI::App app("Captures log streams into an SQLite database and answers questions about them.",
               "runeflow");
  app.require_subcommand(1);
  // Where an option is given twice, the last one counts.
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  app.footer(
      "Exit codes: 0 done, 1 nothing matched, 2 a usage or input error. Options that every command "
      "takes by default stand in RUNEFLOW_OPTS and, one a line, in "
      "$XDG_CONFIG_HOME/runeflow/config.");
  app.set_version_flag("--version", RUNEFLOW_VERSION);
  const Words words(argc, argv);
  const auto defaults = readDefaults();
  int exitCode = 0;
  addCapture(app, exitCode);
  addQuery(app, words, defaults, exitCode);
  addValues(app, words, defaults, exitCode);
  addInfo(app, exitCode);
  addExport(app, words, defaults, exitCode);
  for (auto* add : {addClear, addCheck, addShip, addSources, addView}) add(app, exitCode);
  addManual(app);
  if (const auto& all = words.all(); !all.empty() && all.front() == "complete") {
    // A line that a shell completes is not parsed: it may be unfinished anywhere.
    const bool hasMark = all.size() > 1 && all[1] == "--";
    printCompletions(describeProgram(app), defaults, {all.begin() + (hasMark ? 2 : 1), all.end()});
    return 0;
  }
  auto line = withDefaults(app, words, defaults);
  std::ranges::reverse(line);  // as CLI11 takes them
  try {
    app.parse(std::move(line));
  } catch (const CLI::Success& wanted) {  // --help and --version
    return app.exit(wanted);
  } catch (const CLI::ParseError& error) {
    failForLine(app, words, error);
  }
  return exitCode;
}

}  // namespace cli
