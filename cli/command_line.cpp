// SPDX-License-Identifier: MIT
#include "command_line.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <functional>
#include <memory>

#include "commands.h"
#include "host/byte_count.h"
#include "host/failure.h"
#include "host/log_kind.h"

namespace cli {
namespace {

using host::fail;

std::string kindIds() {
  return host::joinKinds(&host::LogKind::id, " or ");
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
    const auto description = fmt::format("{}, if the database does not tell", kindIds());
    command->add_option("--source", options->source, description)->type_name("KIND");
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
  command->add_option("FILE", options.files, "Logcat text or DLT recordings; - is standard input")
      ->type_name("");
  command->add_option("--db", options.database, "The database; created if it does not exist")
      ->required()
      ->type_name("PATH");
  command
      ->add_option(
          "--format", options.format,
          fmt::format("What the files hold ({}), if their first bytes do not tell", kindIds()))
      ->type_name("KIND");
  command
      ->add_option("--max-bytes", *maxBytes,
                   "Keep the database below that size by deleting its oldest records; units are "
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
  capture.runs(cli::capture, exitCode, [adb, maxBytes](CaptureOptions& parsed) {
    parsed.isAdb = adb->count() > 0;
    if (!maxBytes->empty()) parsed.maxBytes = host::parseByteCount(*maxBytes);
  });
}

void addQuery(CLI::App& app, int& exitCode) {
  Subcommand<QueryOptions> query(app, "query", "Print the records that match a query");
  auto* command = query.command;
  auto& options = *query.options;
  query.addDatabase();
  command->add_option("QUERY", options.text, "Such as: 'level:warn \"disk full\" NOT tag:chatty'")
      ->type_name("");
  // Further words belong to the query. They are not a list option, because CLI11 would split
  // "[a,b]".
  command->allow_extras();
  query.addSource();
  command->add_option("--after", options.after, "Only records with a greater seq")
      ->type_name("SEQ")
      ->check(atLeast(0));
  auto* first = command->add_option("--first", options.first, "Only the first N matches");
  first->type_name("N")->check(atLeast(1));
  auto* last = command->add_option("--last", options.last, "Only the last N matches");
  last->type_name("N")->check(atLeast(1))->excludes(first);
  auto* counts = query.addFlag("--count", &QueryOptions::counts, "Print how many records match");
  auto* follows = query.addFlag("--follow", &QueryOptions::follows,
                                "Print new matches as they are stored, until Ctrl-C");
  follows->excludes(first);
  query.addFlag("--match-case", &QueryOptions::matchCase, "Words match with their exact case");
  auto* json = query.addFlag("--json", &QueryOptions::isJson, "One JSON object a line");
  auto* csv = query.addFlag("--csv", &QueryOptions::isCsv, "RFC 4180")->excludes(json);
  auto* pager = query.addFlag("--pager", &QueryOptions::usesPager, "Show the records in $PAGER");
  pager->excludes(follows);
  auto* plan =
      query.addFlag("--plan", &QueryOptions::showsPlan, "Print SQLite's plan for the query");
  for (auto* other : {first, last, follows, json, csv, pager}) {
    counts->excludes(other);
    plan->excludes(other);
  }
  plan->excludes(counts);
  command->footer(
      "Off a terminal every record is one line: seq, time in UTC, level, the source's fields and "
      "the message, separated by tabs.");
  query.runs(cli::query, exitCode, [command](QueryOptions& parsed) {
    for (const auto& word : command->remaining()) {
      if (word.starts_with('-')) fail("there is no option {}; see --help", word);
      parsed.text += ' ' + word;
    }
  });
}

void addValues(CLI::App& app, int& exitCode) {
  Subcommand<ValuesOptions> values(app, "values", "Print the most frequent values of a field");
  auto* command = values.command;
  auto& options = *values.options;
  values.addDatabase();
  command->add_option("FIELD", options.field, "Such as tag, pid, app or level")
      ->required()
      ->type_name("");
  command->add_option("--matching", options.matching, "Only records that match this query")
      ->type_name("QUERY");
  command->add_option("--prefix", options.prefix, "Only values that begin with this text");
  command->add_option("--limit", options.limit, "At most N values; negative for all")
      ->type_name("N")
      ->capture_default_str();
  values.addSource();
  values.addFlag("--json", &ValuesOptions::isJson, "One JSON object a line");
  values.runs(cli::values, exitCode);
}

void addInfo(CLI::App& app, int& exitCode) {
  Subcommand<InfoOptions> info(app, "info", "Describe a database");
  info.addDatabase();
  info.addSource();
  info.addFlag("--json", &InfoOptions::isJson, "One JSON object");
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
  check.addFlag("--repair", &CheckOptions::repairs, "Build the full-text index anew");
  check.runs(cli::check, exitCode);
}

void addShip(CLI::App& app, int& exitCode) {
  Subcommand<ShipOptions> ship(app, "ship",
                               "Send the records of a database to a table of ClickHouse");
  auto* command = ship.command;
  auto& options = *ship.options;
  command->add_option("DB", options.database, "The database; may be missing with --create")
      ->type_name("");
  command->add_option("--to", options.table, "The table: http[s]://HOST[:8123]/DATABASE.TABLE")
      ->required()
      ->type_name("URL");
  command
      ->add_option("--name", options.capture,
                   "The name of the capture in the table; HOST/DB if it is missing")
      ->type_name("CAPTURE");
  ship.addSource();
  auto* follow = ship.addFlag("--follow", &ShipOptions::follows,
                              "Send new records as they are stored, until Ctrl-C");
  auto every = std::make_shared<std::int64_t>(1);
  command->add_option("--every", *every, "With --follow: seconds from one block to the next")
      ->type_name("N")
      ->check(CLI::Range(1, 3'600))
      ->needs(follow)
      ->capture_default_str();
  ship.addFlag("--create", &ShipOptions::creates, "Make the table if it does not exist");
  command
      ->add_option("--cluster", options.cluster,
                   "With --create: spread the table over that cluster of the server")
      ->type_name("NAME");
  command->footer(
      "User and password come from RUNEFLOW_USER and RUNEFLOW_PASSWORD, or from the two lines of "
      "the file that RUNEFLOW_LOGIN_FILE names. RUNEFLOW_CA_FILE names the certificates to trust. "
      "query, values and info take the address of a table in the place of a database.");
  ship.runs(cli::ship, exitCode, [every](ShipOptions& parsed) {
    parsed.everyMilliseconds = static_cast<int>(*every * 1'000);
  });
}

void addSources(CLI::App& app, int& exitCode) {
  Subcommand<SourcesOptions> sources(app, "sources", "List where logs can come from");
  sources.addFlag("--json", &SourcesOptions::isJson, "One JSON object a line");
  sources.runs(cli::sources, exitCode);
}

void addView(CLI::App& app, int& exitCode) {
  Subcommand<ViewCommandOptions> view(app, "view", "Show a database in the browser");
  auto* command = view.command;
  auto& options = *view.options;
  command->add_option("DB|LOG", options.path, "A database, or a log to capture beside it")
      ->type_name("");
  view.addSource();
  command->add_option("--port", options.port, "The port on 127.0.0.1")
      ->type_name("N")
      ->check(CLI::Range(1, 65'535));
  view.addFlag("--no-open", &ViewCommandOptions::staysClosed, "Do not open a browser");
  view.runs(cli::view, exitCode);
}

}  // namespace

int runCommandLine(int argc, char** argv) {
  // Named here, because CLI11 would print the first argument, which the caller chooses, in the
  // help.
  CLI::App app("Captures log streams into an SQLite database and answers questions about them.",
               "runeflow");
  app.require_subcommand(1);
  app.footer("Exit codes: 0 done, 1 nothing matched, 2 a usage or input error.");
  app.set_version_flag("--version", RUNEFLOW_VERSION);
  int exitCode = 0;
  for (auto* add : {addCapture, addQuery, addValues, addInfo, addClear, addCheck, addShip,
                    addSources, addView}) {
    add(app, exitCode);
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& wanted) {  // --help and --version
    return app.exit(wanted);
  } catch (const CLI::ParseError& error) {
    fail("{}; see --help", error.what());
  }
  return exitCode;
}

}  // namespace cli
