// SPDX-License-Identifier: MIT
#include "host/byte_count.h"

#include <charconv>
#include <limits>
#include <string_view>
#include <system_error>

#include "host/failure.h"

namespace host {

std::int64_t parseByteCount(const std::string& text) {
  std::int64_t number = 0;
  const char* end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, number);
  const std::string_view unit(parsed.ptr, end);
  const auto shift = unit.empty() ? 0 : unit == "K" ? 10 : unit == "M" ? 20 : unit == "G" ? 30 : -1;
  const bool fits = shift >= 0 && number <= (std::numeric_limits<std::int64_t>::max() >> shift);
  if (parsed.ec != std::errc() || number < 1 || !fits) {
    fail("'{}' is not a size; write a number of bytes such as 1000000, 500K, 20M or 2G", text);
  }
  return number << shift;
}

}  // namespace host
