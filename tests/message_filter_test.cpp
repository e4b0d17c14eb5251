// SPDX-License-Identifier: MIT

// Regular expressions on messages: what matches, where, and what is refused.
#include "host/message_filter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "host/failure.h"

namespace runeflow {
namespace {

using namespace std::string_view_literals;

// The pieces of the message in brackets.
std::string marked(const std::string& expression, std::string_view message) {
  const host::MessageFilter filter(expression);
  std::string text(message);
  auto ranges = filter.in(message);
  EXPECT_TRUE(ranges.empty() || filter.matches(message));
  for (auto range = ranges.rbegin(); range != ranges.rend(); ++range) {
    text.insert(range->end, "]");
    text.insert(range->begin, "[");
  }
  return text;
}

TEST(MessageFilter, findsEveryPieceAndNoEmptyOne) {
  const struct {
    const char* expression;
    std::string_view message;
    std::string_view expected;
  } table[] = {
      {"Exception", "NullPointerException: Exception", "NullPointer[Exception]: [Exception]"},
      {"exception", "Exception", "Exception"},
      {"(?i)exception", "EXCEPTion", "[EXCEPTion]"},
      {"^disk", "disk disk", "[disk] disk"},
      {"disk$", "disk disk", "disk [disk]"},
      {"a*", "baac", "b[aa]c"},
      {"a*", "", ""},
      {"x*", "caf\u00e9", "caf\u00e9"},
      {"a.c", "a\u00e9c a\nc", "[a\u00e9c] a\nc"},
      {"\\d+ms", "took 12ms, 7ms", "took [12ms], [7ms]"},
      {"\\bok\\b", "ok token ok", "[ok] token [ok]"},
      {"b", "a\x9b b\xff", "a\x9b [b]\xff"},
      {"b", "a\0b"sv, "a\0[b]"sv},
      {"(a|ab)(c|bcd)*", "abcd", "[abcd]"},
  };
  for (const auto& [expression, message, expected] : table) {
    SCOPED_TRACE(expression);
    EXPECT_EQ(marked(expression, message), expected);
  }
  EXPECT_TRUE(host::MessageFilter("").matches(""));
  EXPECT_FALSE(host::MessageFilter("^$").matches("x"));
}

TEST(MessageFilter, takesTimeInProportionToTheMessage) {
  // A matcher that goes back and tries again would need 2^100000 steps.
  EXPECT_FALSE(host::MessageFilter("(a+)+$").matches(std::string(100'000, 'a') + 'b'));
}

TEST(MessageFilter, refusesABadExpressionInTheWordsOfRe2) {
  const std::pair<const char*, const char*> table[] = {
      {"a(", "'a(' is not a regular expression: missing ): a("},
      {"*", "no argument for repetition operator: *"},
      {"[z-a]", "invalid character class range: z-a"},
      {"(a)\\1", "invalid escape sequence: \\1"},
      {"\xff", "invalid UTF-8"},
      {"((a{100}){100}){100}", "invalid repetition size"},
  };
  for (const auto& [expression, names] : table) {
    SCOPED_TRACE(expression);
    try {
      host::MessageFilter{expression};
      ADD_FAILURE() << "accepted";
    } catch (const host::Failure& failure) {
      EXPECT_THAT(failure.what(), testing::HasSubstr(names));
    }
  }
}

}  // namespace
}  // namespace runeflow
