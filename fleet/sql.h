// SPDX-License-Identifier: MIT

// The only way of a text into a statement.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace fleet {

// Returns the text as a string literal of ClickHouse's SQL. The literal is printable ASCII. Quote,
// backslash and every byte that is not printable ASCII are written as \xHH, so that neither the
// server's character set nor its set of escapes matters.
std::string sqlText(std::string_view text);

// Returns the number as a literal.
std::string sqlNumber(std::int64_t value);

// Returns the name in backquotes. The names are ours or plain identifiers.
std::string sqlName(std::string_view name);

}  // namespace fleet
