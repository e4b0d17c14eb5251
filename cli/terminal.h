// SPDX-License-Identifier: MIT

// The terminal: its colours and its width. host/terminal_text.h escapes control sequences in texts.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

#include "host/text_width.h"

namespace cli {

bool isTerminal(std::FILE* stream);

// When to print colours, as --color chooses. Set before anything is printed.
enum class ColourWhen { automatic, always, never };
void setColour(ColourWhen when);

// Returns whether to print colours to `stream`: by default to a terminal, unless NO_COLOR is set in
// the environment or TERM is "dumb".
bool showsColour(std::FILE* stream);

// Returns whether standard output gets the form for people: it is a terminal, or --color=always
// asks for what a pager shows.
bool isForPeople();

// Returns the width of the terminal in columns, or 80 if it is unknown.
int terminalWidth(std::FILE* stream);

// Returns the width to wrap lines of standard output for. If it is no terminal, but for people, the
// width is that of the terminal of standard error. Absent if there is none.
std::optional<std::size_t> wrapWidth();

// Colours that can be read on a light and on a dark background. Those without a background of their
// own are the entries of the 256-colour palette whose contrast is at least 4.5 with black and with
// white. The 16 basic colours are avoided, because every terminal has its own.
namespace colour {
inline constexpr std::string_view kReset = "\x1b[0m";
inline constexpr std::string_view kFaint = "\x1b[38;5;243m";
inline constexpr std::string_view kBold = "\x1b[1m";
inline constexpr std::string_view kGreen = "\x1b[38;5;29m";
inline constexpr std::string_view kBlue = "\x1b[38;5;63m";
inline constexpr std::string_view kPurple = "\x1b[38;5;98m";
inline constexpr std::string_view kRed = "\x1b[38;5;131m";
inline constexpr std::string_view kOnOrange = "\x1b[38;5;16;48;5;214m";
inline constexpr std::string_view kOnRed = "\x1b[38;5;231;48;5;160m";
inline constexpr std::string_view kOnPurple = "\x1b[38;5;231;48;5;90m";
inline constexpr std::string_view kHighlight = "\x1b[1;38;5;16;48;5;222m";
}  // namespace colour

using host::columnsOf;
using host::fitted;

// Returns "1 record", "2 records".
std::string counted(std::int64_t count, std::string_view noun);

// Returns the largest length of a bar, 1 to 40 columns, on a line of standard output whose other
// texts take `taken` columns.
int barColumns(std::size_t taken);

// Returns a horizontal bar whose length is `columns` times `value` / `most`. A value of 1 or more
// gets at least an eighth of a column.
std::string bar(std::int64_t value, std::int64_t most, int columns);

}  // namespace cli
