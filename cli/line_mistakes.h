// SPDX-License-Identifier: MIT

// What is said about a line that names no command, or an option that its command does not have.
#pragma once

#include <string>

#include "words.h"

namespace CLI {
class App;
class ParseError;
}  // namespace CLI

namespace cli {

// Fails for an option that the command does not have.
[[noreturn]] void failForOption(const CLI::App& command, const std::string& word);

// Fails for a line that could not be parsed.
[[noreturn]] void failForLine(const CLI::App& app, const Words& words,
                              const CLI::ParseError& error);

}  // namespace cli
