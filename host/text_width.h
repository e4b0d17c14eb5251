// SPDX-License-Identifier: MIT

// The columns that a text takes on a terminal. The text must be valid UTF-8 that a terminal only
// displays; see host/terminal_text.h. Colours (ESC [ … m) that a program adds take no column.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace host {

// Returns the number of columns: 2 for each character that Unicode's East Asian Width (UAX #11)
// calls wide or fullwidth, most emoji among them, 0 for marks and joiners, which combine with the
// character before them, and 1 for all others.
std::size_t columnsOf(std::string_view text);

// Returns the length in bytes of the longest prefix that takes at most `columns` columns. Marks
// stay with the character before them.
std::size_t prefixWithin(std::string_view text, std::size_t columns);

// Returns the text padded with blanks to `columns` columns. A longer text is cut and ends with "…".
std::string fitted(std::string_view text, std::size_t columns);

// Returns the text, which begins at column `begin` of a line, in lines of at most `width` columns.
// Each further line is indented by `indent` columns. Lines break behind blanks where they can.
// A colour that is on at a break is turned off for the indent. The text stays as it is if less than
// 8 columns are left for it.
std::string wrapped(std::string_view text, std::size_t begin, std::size_t indent,
                    std::size_t width);

}  // namespace host
