// SPDX-License-Identifier: MIT

// The subcommands of `runeflow`, with their options and help texts.
#pragma once

#include "defaults.h"
#include "words.h"

namespace CLI {
class App;
}  // namespace CLI

namespace cli {

// Adds all subcommands in the order of the help. Parsing a line runs the subcommand that it names
// and sets `exitCode`. All arguments must live until then.
void addSubcommands(CLI::App& app, const Words& words, const Defaults& defaults, int& exitCode);

}  // namespace cli
