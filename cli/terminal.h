// SPDX-License-Identifier: MIT

// The terminal: its colours, and the widths of texts. host/terminal_text.h escapes control
// sequences in texts.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace cli {

bool isTerminal(std::FILE* stream);

// Returns whether `stream` is a terminal and NO_COLOR is not set in the environment.
bool showsColour(std::FILE* stream);

// Returns the width of the terminal in columns, or 80 if it is unknown.
int terminalWidth(std::FILE* stream);

namespace colour {
inline constexpr std::string_view kReset = "\x1b[0m";
inline constexpr std::string_view kDim = "\x1b[2m";
inline constexpr std::string_view kBold = "\x1b[1m";
inline constexpr std::string_view kRed = "\x1b[31m";
inline constexpr std::string_view kGreen = "\x1b[32m";
inline constexpr std::string_view kYellow = "\x1b[33m";
inline constexpr std::string_view kBlue = "\x1b[34m";
inline constexpr std::string_view kHighlight = "\x1b[1;30;43m";
}  // namespace colour

// Returns "1 record", "2 records".
std::string counted(std::int64_t count, std::string_view noun);

// Returns the number of code points. This is the number of terminal columns if no character is
// wide.
std::size_t columnsOf(std::string_view text);

// Returns the text padded with blanks to `columns` columns. A longer text is cut and ends with "…".
std::string fitted(std::string_view text, std::size_t columns);

// Returns the largest length of a bar, 1 to 40 columns, on a line of standard output whose other
// texts take `taken` columns.
int barColumns(std::size_t taken);

// Returns a horizontal bar whose length is `columns` times `value` / `most`. A value of 1 or more
// gets at least an eighth of a column.
std::string bar(std::int64_t value, std::int64_t most, int columns);

}  // namespace cli
