// SPDX-License-Identifier: MIT
#include "host/terminal_text.h"

#include <fmt/format.h>
#include <unicode/uchar.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <cstddef>
#include <cstdint>
#include <iterator>

namespace host {
namespace {

constexpr std::uint32_t kControls = U_GC_CC_MASK;
constexpr std::uint32_t kUnsafe = U_GC_CC_MASK | U_GC_CF_MASK | U_GC_ZL_MASK | U_GC_ZP_MASK;

bool isPrintableAscii(char byte) {
  return byte >= ' ' && byte <= '~';
}

// Returns whether the character is in one of `categories`, a mask of ICU's.
bool isOneOf(UChar32 codePoint, std::uint32_t categories) {
  constexpr UChar32 kZeroWidthNonJoiner = 0x200C;
  constexpr UChar32 kZeroWidthJoiner = 0x200D;
  if (codePoint == kZeroWidthNonJoiner || codePoint == kZeroWidthJoiner) return false;
  return (U_GET_GC_MASK(codePoint) & categories) != 0;
}

// Takes the first character off `rest`. Its code point is negative if the bytes, a maximal subpart
// of an ill-formed sequence, are not UTF-8.
struct Character {
  std::string_view bytes;
  UChar32 codePoint = 0;

  explicit Character(std::string_view& rest) {
    // ICU's UTF-8 macros contain implicit conversions between integer types.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
#pragma GCC diagnostic ignored "-Wsign-conversion"
    const auto length = static_cast<std::int64_t>(rest.size());
    std::int64_t size = 0;
    U8_NEXT(rest.data(), size, length, codePoint);  // NOLINT(bugprone-inc-dec-in-conditions)
#pragma GCC diagnostic pop
    bytes = rest.substr(0, static_cast<std::size_t>(size));
    rest.remove_prefix(bytes.size());
  }
};

void appendEscaped(std::string& line, UChar32 codePoint) {
  switch (codePoint) {
    case '\n':
      line += "\\n";
      return;
    case '\r':
      line += "\\r";
      return;
    case '\t':
      line += "\\t";
      return;
    default:
      break;
  }
  const auto number = static_cast<std::uint32_t>(codePoint);
  const auto end = std::back_inserter(line);
  if (number < 0x80) {
    fmt::format_to(end, "\\x{:02x}", number);
  } else if (number < 0x10000) {
    fmt::format_to(end, "\\u{:04x}", number);
  } else {
    fmt::format_to(end, "\\U{:08x}", number);
  }
}

void appendJsonEscaped(std::string& line, UChar32 codePoint) {
  const auto end = std::back_inserter(line);
  if (U_IS_BMP(codePoint)) {
    fmt::format_to(end, "\\u{:04x}", static_cast<std::uint32_t>(codePoint));
  } else {
    const auto number = static_cast<std::uint32_t>(codePoint) - 0x10000;
    fmt::format_to(end, "\\u{:04x}\\u{:04x}", 0xD800 + (number >> 10), 0xDC00 + (number & 0x3FF));
  }
}

// Calls `append(line, character)` for every character of `text` that is not printable ASCII, and
// for backslashes. Copies everything else.
std::string rewritten(std::string_view text, auto&& append) {
  std::string line;
  line.reserve(text.size());
  while (!text.empty()) {
    std::size_t plain = 0;
    while (plain < text.size() && isPrintableAscii(text[plain]) && text[plain] != '\\') ++plain;
    line += text.substr(0, plain);
    text.remove_prefix(plain);
    if (!text.empty()) append(line, Character(text));
  }
  return line;
}

std::string escaped(std::string_view text, std::string_view backslash) {
  return rewritten(text, [backslash](std::string& line, const Character& character) {
    if (character.codePoint < 0) {
      for (const char byte : character.bytes) {
        fmt::format_to(std::back_inserter(line), "\\x{:02x}", static_cast<unsigned char>(byte));
      }
    } else if (character.codePoint == '\\') {
      line += backslash;
    } else if (isOneOf(character.codePoint, kUnsafe)) {
      appendEscaped(line, character.codePoint);
    } else {
      line += character.bytes;
    }
  });
}

}  // namespace

std::string terminalText(std::string_view text) {
  return escaped(text, "\\");
}

std::string terminalField(std::string_view text) {
  return escaped(text, "\\\\");
}

std::string terminalJson(std::string_view json, JsonReader reader) {
  const auto escapes = reader == JsonReader::terminal ? kUnsafe : kControls;
  return rewritten(json, [escapes](std::string& line, const Character& character) {
    if (character.codePoint < 0) {
      line += "\uFFFD";
    } else if (isOneOf(character.codePoint, escapes)) {
      appendJsonEscaped(line, character.codePoint);
    } else {
      line += character.bytes;
    }
  });
}

}  // namespace host
