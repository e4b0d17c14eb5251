// What a terminal can show, and what must be kept from it.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

namespace cli {

bool isTerminal(std::FILE* stream);

// On a terminal, and not with NO_COLOR in the environment.
bool showsColour(std::FILE* stream);

// In columns; 80 when the stream does not say.
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

// The text on one line: backslashes and control characters, which a stranger's device may have sent
// to steer the terminal, as escapes ("\n", "\x1b").
std::string onOneLine(std::string_view text);

// The number of the C1 control character (U+0080 to U+009F) that begins there; absent for another.
std::optional<unsigned> c1ControlAt(std::string_view text, std::size_t at);

// "1 record", "2 records".
std::string counted(std::int64_t count, std::string_view noun);

// Columns that a text takes, a code point each; wide characters are counted as one.
std::size_t columnsOf(std::string_view text);

// The text, filled up with blanks or cut with "…" to that many columns.
std::string fitted(std::string_view text, std::size_t columns);

// What a line on standard output leaves to a bar behind so many columns; from 1 to 40.
int barColumns(std::size_t taken);

// A horizontal bar of at most `columns`, as long as `value` is of `most`; at least a sliver for 1.
std::string bar(std::int64_t value, std::int64_t most, int columns);

}  // namespace cli
