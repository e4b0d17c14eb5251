// SPDX-License-Identifier: MIT
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unicode/ubrk.h>

#include <memory>
#include <random>

#include "runeflow/platform/local_time_p.h"
#include "runeflow/platform/unicode_p.h"

namespace runeflow {
namespace {

using testing::ElementsAre;

// Returns up to 11 random pieces in a row. Their neighbors exercise every rule that joins code
// points into one character: combining marks, prepended marks, joiners, flags and Hangul.
std::string randomText(std::mt19937& random) {
  static const std::vector<std::string> pieces = {
      "a",      " ",      "\t",         "\r",         "\n",         "-", ":",      "1",
      "\"",     "\u0301", "\u200D",     "\u0600",     "\u0903",     "é", "\u00A0", "\u2003",
      "\u1100", "\u1161", "\U0001F469", "\U0001F3FD", "\U0001F1E9", "²", "日"};
  std::string text;
  const auto length = random() % 12;
  for (std::size_t i = 0; i < length; ++i) text += pieces[random() % pieces.size()];
  return text;
}

std::vector<std::string> icuCharacters(const std::string& text) {
  UErrorCode status = U_ZERO_ERROR;
  UText source = UTEXT_INITIALIZER;
  utext_openUTF8(&source, text.data(), static_cast<std::int64_t>(text.size()), &status);
  const std::unique_ptr<UBreakIterator, decltype(&ubrk_close)> breaks(
      ubrk_open(UBRK_CHARACTER, "", nullptr, 0, &status), ubrk_close);
  ubrk_setUText(breaks.get(), &source, &status);
  EXPECT_TRUE(U_SUCCESS(status));
  std::vector<std::string> characters;
  for (std::int32_t start = 0, end = ubrk_next(breaks.get()); end != UBRK_DONE;
       start = end, end = ubrk_next(breaks.get())) {
    characters.push_back(
        text.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(end - start)));
  }
  utext_close(&source);
  return characters;
}

TEST(Unicode, charactersAndStandsAloneAgreeWithIcu) {
  std::mt19937 random(7);
  for (int round = 0; round < 20'000; ++round) {
    const std::string text = randomText(random);
    SCOPED_TRACE(testing::PrintToString(text));
    std::vector<std::string> characters;
    unicode::CharacterReader reader(text);
    for (auto c = reader.next(); !c.empty(); c = reader.next()) characters.emplace_back(c);
    const auto expected = icuCharacters(text);
    ASSERT_EQ(characters, expected);

    std::size_t position = 0;
    for (const auto& character : expected) {
      for (std::size_t i = 0; i < character.size(); ++i) {
        if (character[i] < ' ') continue;  // also skips non-ASCII bytes, which are negative
        ASSERT_EQ(unicode::standsAlone(text, position + i), character.size() == 1) << position + i;
      }
      position += character.size();
    }
  }
}

TEST(Unicode, illFormedSequencesBecomeOneReplacementPerMaximalSubpart) {
  const std::pair<std::string_view, std::string_view> rows[] = {
      {"plain", "plain"},
      {"\xF0\x9F\x92z", "\uFFFDz"},
      {"\xE2\x28\xA1", "\uFFFD(\uFFFD"},
      {"\xED\xA0\x80", "\uFFFD\uFFFD\uFFFD"},
      {"\xC0\xAF", "\uFFFD\uFFFD"},
      {"\xF4\x90\x80\x80", "\uFFFD\uFFFD\uFFFD\uFFFD"},
      {"x\xFFy\x80", "x\uFFFDy\uFFFD"},
      {"\xE2\x82", "\uFFFD"},
      {std::string_view("a\0b", 3), std::string_view("a\0b", 3)},
  };
  for (const auto& [bytes, text] : rows) {
    EXPECT_EQ(unicode::decodeLossily(bytes), text);
    EXPECT_EQ(unicode::isValidUtf8(bytes), bytes == text);
  }
}

TEST(Unicode, wordsAndTrimAgreeOnWhiteSpace) {
  EXPECT_THAT(unicode::words(" a\u2003b\r\nc\u0085 \u00A0"), ElementsAre("a", "b", "c"));
  // A space with a combining mark is one white-space character and is removed with its mark.
  EXPECT_THAT(unicode::words("a \u0301b"), ElementsAre("a", "b"));
  EXPECT_EQ(unicode::trimWhiteSpace("\u3000 \u0301x y\r\n"), "x y");
  EXPECT_EQ(unicode::trimWhiteSpace(" \n"), "");
  EXPECT_THAT(unicode::words(""), ElementsAre());
}

}  // namespace
}  // namespace runeflow
