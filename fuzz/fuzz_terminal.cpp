// SPDX-License-Identifier: MIT

// Any bytes as text for a terminal: the result is valid UTF-8 and holds nothing that a terminal
// obeys, harmless text stays as it is, and a field can be restored.
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "host/terminal_text.h"
#include "runeflow/platform/unicode_p.h"

namespace {

using host::JsonReader;

void require(bool condition) {
  if (!condition) std::abort();
}

icu::UnicodeString decoded(std::string_view text) {
  return icu::UnicodeString::fromUTF8({text.data(), static_cast<std::int32_t>(text.size())});
}

bool isControl(UChar32 codePoint) {
  return u_charType(codePoint) == U_CONTROL_CHAR;
}

bool isSafe(UChar32 codePoint) {
  if (codePoint == 0x200C || codePoint == 0x200D) return true;
  const auto category = u_charType(codePoint);
  return !isControl(codePoint) && category != U_FORMAT_CHAR && category != U_LINE_SEPARATOR &&
         category != U_PARAGRAPH_SEPARATOR;
}

bool consistsOf(std::string_view text, bool (*isWanted)(UChar32)) {
  if (!runeflow::unicode::isValidUtf8(text)) return false;
  const auto units = decoded(text);
  for (std::int32_t i = 0; i < units.length(); i = units.moveIndex32(i, 1)) {
    if (!isWanted(units.char32At(i))) return false;
  }
  return true;
}

// Takes an escape off `rest`, the backslash excluded, and returns the bytes that it stands for.
std::string takeEscape(std::string_view& rest) {
  require(!rest.empty());
  const char kind = rest.front();
  rest.remove_prefix(1);
  if (kind == '\\') return "\\";
  if (kind == 'n' || kind == 'r' || kind == 't')
    return kind == 'n' ? "\n" : kind == 'r' ? "\r" : "\t";
  const std::size_t digits = kind == 'x' ? 2 : kind == 'u' ? 4 : 8;
  require((kind == 'x' || kind == 'u' || kind == 'U') && rest.size() >= digits);
  std::uint32_t number = 0;
  const auto parsed = std::from_chars(rest.data(), rest.data() + digits, number, 16);
  require(parsed.ptr == rest.data() + digits);
  rest.remove_prefix(digits);
  std::string bytes;
  if (kind == 'x') return bytes += static_cast<char>(number);
  icu::UnicodeString(static_cast<UChar32>(number)).toUTF8String(bytes);
  return bytes;
}

std::string restored(std::string_view field) {
  std::string text;
  while (!field.empty()) {
    const char first = field.front();
    field.remove_prefix(1);
    text += first == '\\' ? takeEscape(field) : std::string(1, first);
  }
  return text;
}

void checkJson(std::string_view text) {
  using nlohmann::json;
  const auto plain = json(text).dump(-1, ' ', false, json::error_handler_t::replace);
  const auto forTerminal = host::terminalJson(plain, JsonReader::terminal);
  const auto forProgram = host::terminalJson(plain, JsonReader::program);
  require(consistsOf(forTerminal, isSafe));
  require(consistsOf(forProgram, [](UChar32 codePoint) { return !isControl(codePoint); }));
  require(json::parse(forTerminal) == json::parse(plain));
  require(json::parse(forProgram) == json::parse(plain));
  // It need not be JSON to be made safe.
  require(consistsOf(host::terminalJson(text, JsonReader::terminal), isSafe));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kRoom = 1 << 16;
  const std::string_view text(reinterpret_cast<const char*>(data), std::min(size, kRoom));
  const auto sentence = host::terminalText(text);
  const auto field = host::terminalField(text);
  require(consistsOf(sentence, isSafe) && consistsOf(field, isSafe));
  require(!consistsOf(text, isSafe) || sentence == text);
  require(host::terminalText(sentence) == sentence);
  require(restored(field) == text);
  checkJson(text);
  return 0;
}
