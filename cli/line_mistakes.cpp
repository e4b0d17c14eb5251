// SPDX-License-Identifier: MIT
#include "line_mistakes.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <vector>

#include "host/database.h"
#include "host/failure.h"
#include "host/log_kind.h"
#include "host/query_mistakes.h"
#include "host/stream.h"

namespace cli {

using host::fail;

namespace {

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

}  // namespace

void failForOption(const CLI::App& command, const std::string& word) {
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

void failForLine(const CLI::App& app, const Words& words, const CLI::ParseError& error) {
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

}  // namespace cli
