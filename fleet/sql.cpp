// SPDX-License-Identifier: MIT

#include "fleet/sql.h"

#include <fmt/format.h>

#include <cassert>
#include <iterator>
#include <limits>

namespace fleet {

std::string sqlText(std::string_view text) {
  std::string literal = "'";
  literal.reserve(text.size() + 2);
  for (const char c : text) {
    if (c >= ' ' && c <= '~' && c != '\'' && c != '\\') {
      literal += c;
    } else {
      fmt::format_to(std::back_inserter(literal), "\\x{:02X}", static_cast<unsigned char>(c));
    }
  }
  return literal += '\'';
}

std::string sqlNumber(std::int64_t value) {
  // The parser reads a minus as an operator, and its operand would not fit 64 bits with a sign.
  if (value == std::numeric_limits<std::int64_t>::min()) return fmt::format("toInt64('{}')", value);
  return fmt::format("{}", value);
}

std::string sqlName(std::string_view name) {
  assert(name.find_first_of("`\\") == std::string_view::npos);
  return fmt::format("`{}`", name);
}

}  // namespace fleet
