// SPDX-License-Identifier: MIT
#include "command_line.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <vector>

#include "command_description.h"
#include "completion.h"
#include "defaults.h"
#include "host/failure.h"
#include "line_mistakes.h"
#include "manual.h"
#include "subcommands.h"
#include "words.h"

namespace cli {
namespace {

using host::fail;

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
  addSubcommands(app, words, defaults, exitCode);
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
