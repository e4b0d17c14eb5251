// SPDX-License-Identifier: MIT

// Text for a terminal: what is escaped, what is not, and where the borders lie.
#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "host/terminal_text.h"

namespace runeflow {
namespace {

using namespace std::string_view_literals;
using host::JsonReader;

struct Row {
  const char* name;
  std::string_view text;
  std::string_view expected;
};

TEST(TerminalText, escapesWhatATerminalObeysAndNothingElse) {
  const Row table[] = {
      {"empty", "", ""},
      {"first and last printable ASCII", " ~", " ~"},
      {"C0 controls", "\x00\x01\x08\x1f"sv, R"(\x00\x01\x08\x1f)"},
      {"line feed, return, tab", "a\nb\r\tc", R"(a\nb\r\tc)"},
      {"sequence", "\x1b[31mred", "\\x1b[31mred"},
      {"DEL", "\x7f", "\\x7f"},
      {"C1, first and last", "\u0080\u009f", "\\u0080\\u009f"},
      {"character after C1", "\u00a0", "\u00a0"},
      {"soft hyphen and its neighbours", "\u00ac\u00ad\u00ae", "\u00ac\\u00ad\u00ae"},
      {"Arabic format characters", "\u0600\u061c", "\\u0600\\u061c"},
      {"zero-width space, joiners, marks", "\u200b\u200c\u200d\u200e\u200f",
       "\\u200b\u200c\u200d\\u200e\\u200f"},
      {"separators and overrides", "\u2027\u2028\u2029\u202a\u202e\u202f",
       "\u2027\\u2028\\u2029\\u202a\\u202e\u202f"},
      {"isolates", "\u2066\u2069", "\\u2066\\u2069"},
      {"byte order mark", "\ufeff", "\\ufeff"},
      {"tags and variation selector", "\U000e0001\U000e007f\U000e0100",
       "\\U000e0001\\U000e007f\U000e0100"},
      {"emoji sequence", "\U0001f469\u200d\U0001f680", "\U0001f469\u200d\U0001f680"},
      {"last code points, unassigned", "\uffff\U0010ffff", "\uffff\U0010ffff"},
      {"C1 as single bytes", "\x9b\x31m \x80\x9f", R"(\x9b1m \x80\x9f)"},
      {"overlong escape", "\xc0\x9b", "\\xc0\\x9b"},
      {"surrogate", "\xed\xa0\x80", R"(\xed\xa0\x80)"},
      {"beyond Unicode", "\xf4\x90\x80\x80", R"(\xf4\x90\x80\x80)"},
      {"cut off at the end", "a\xe2\x80", R"(a\xe2\x80)"},
      {"cut off before ASCII", "\xe2\x80\x1b[m", R"(\xe2\x80\x1b[m)"},
      {"cut off before a character", "\xf0\x9f\u00e9\xff", "\\xf0\\x9f\u00e9\\xff"},
      {"mixed", "caf\u00e9\xe9\u202e\n", "caf\u00e9\\xe9\\u202e\\n"},
      {"backslashes", "C:\\x1b\\", "C:\\x1b\\"},
  };
  for (const auto& [name, text, expected] : table) {
    SCOPED_TRACE(name);
    EXPECT_EQ(host::terminalText(text), expected);
    EXPECT_EQ(host::terminalText(expected), expected);
  }
}

TEST(TerminalText, aFieldTellsEscapesFromTheirSpelling) {
  EXPECT_EQ(host::terminalField("a\x1b\u202e\x9b\tb"), "a\\x1b\\u202e\\x9b\\tb");
  EXPECT_EQ(host::terminalField("a\\x1b\\u202e\\"), "a\\\\x1b\\\\u202e\\\\");
}

TEST(TerminalText, jsonStaysJson) {
  struct {
    const char* name;
    std::string_view json;
    std::string_view onTerminal;
    std::string_view toProgram;
  } const table[] = {
      {"escapes stay", R"("\u001b\\\n")", R"("\u001b\\\n")", R"("\u001b\\\n")"},
      {"controls", "\"\x7f\u009b\"", R"("\u007f\u009b")", R"("\u007f\u009b")"},
      {"format characters", "\"\u202e\u2028\u200d\"", "\"\\u202e\\u2028\u200d\"",
       "\"\u202e\u2028\u200d\""},
      {"beyond the BMP", "\"\U0001bca0\U000e0001\U0001f469\"",
       "\"\\ud82f\\udca0\\udb40\\udc01\U0001f469\"", "\"\U0001bca0\U000e0001\U0001f469\""},
      {"not UTF-8", "\"\x9b\"", "\"\ufffd\"", "\"\ufffd\""},
  };
  for (const auto& [name, json, onTerminal, toProgram] : table) {
    SCOPED_TRACE(name);
    EXPECT_EQ(host::terminalJson(json, JsonReader::terminal), onTerminal);
    EXPECT_EQ(host::terminalJson(json, JsonReader::program), toProgram);
  }
}

}  // namespace
}  // namespace runeflow
