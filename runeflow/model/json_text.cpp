// SPDX-License-Identifier: MIT
#include <fmt/format.h>

#include <iterator>

#include "runeflow/model/json_text_p.h"
#include "runeflow/platform/unicode_p.h"

namespace runeflow {
std::string escapeJson(std::string_view text) {
  constexpr std::string_view kCharacters = "\"\\/\b\f\n\r\t";
  constexpr std::string_view kLetters = "\"\\/bfnrt";
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    if (const auto at = kCharacters.find(c); at != std::string_view::npos) {
      out += {'\\', kLetters[at]};
    } else if (static_cast<unsigned char>(c) < 0x20) {
      fmt::format_to(std::back_inserter(out), "\\u{:04x}", static_cast<unsigned>(c));
    } else {
      out += c;
    }
  }
  return out;
}

std::string jsonMember(std::string_view key, std::string_view value) {
  return '"' + escapeJson(key) + "\":\"" + escapeJson(value) + '"';
}

std::optional<std::string> jsonObject(const std::map<std::string, std::string>& map) {
  std::string out = "{";
  for (const auto& [key, value] : map) {
    if (!unicode::isValidUtf8(key) || !unicode::isValidUtf8(value)) return std::nullopt;
    if (out.size() > 1) out += ',';
    out += jsonMember(key, value);
  }
  out += '}';
  return out;
}

}  // namespace runeflow
