// SPDX-License-Identifier: MIT
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "runeflow/query/query_parser.h"
#include "runeflow/store/event_store.h"
#include "runeflow/store/word_marks.h"
#include "runeflow/store/word_tokenizer.h"
#include "support.h"

namespace runeflow {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

std::string marked(std::string_view query, std::string_view message, bool matchCase = false) {
  const WordMarks marks(QueryParser::parse(query, SourceDescriptor::logcat(), matchCase),
                        matchCase);
  std::string text;
  std::size_t at = 0;
  for (const auto& [begin, end] : marks.in(message)) {
    text +=
        fmt::format("{}[{}]", message.substr(at, begin - at), message.substr(begin, end - begin));
    at = end;
  }
  return text + std::string(message.substr(at));
}

TEST(WordTokenizer, cutsAsTheIndexDoes) {
  const auto tokenizer = *WordTokenizer::create();
  const std::string text = "ÜBER-raschung, x_1 日本!";
  const std::vector<WordToken> expected = {
      {"uber", 0, 5}, {"raschung", 6, 14}, {"x", 16, 17}, {"1", 18, 19}, {"日本", 20, 26}};
  EXPECT_EQ(tokenizer.words(text), expected);
  std::string folded;
  tokenizer.forEachWord(text, [&](std::string_view word) { folded.append(word) += '|'; });
  EXPECT_EQ(folded, "uber|raschung|x|1|日本|");
  EXPECT_THAT(tokenizer.words(""), IsEmpty());
  EXPECT_THAT(tokenizer.words("-- \xff ()"), SizeIs(testing::Le(1)));
  EXPECT_THAT(tokenizer.words(std::string(100'000, 'a')).front().folded, SizeIs(32'768));
  auto moved = WordTokenizer::create();
  *moved = *WordTokenizer::create();
  EXPECT_THAT(moved->words("a b"), SizeIs(2));
}

TEST(WordMarks, coverWhatTheIndexFinds) {
  const struct {
    const char* query;
    const char* message;
    const char* expected;
    bool matchCase = false;
  } rows[] = {
      {"conn", "Connected, reconnect", "[Connected], reconnect"},
      {"to", "to Tomorrow", "[to] Tomorrow"},
      {"zürich", "ZURICH Zürich", "[ZURICH] [Zürich]"},
      {"start.proc", "start proc; start x proc", "[start proc]; start x proc"},
      {"(disk OR wifi) NOT full", "disk full wifi", "[disk] full [wifi]"},
      {"NOT (disk OR NOT wifi)", "disk wifi", "disk wifi"},
      {"a.b b.c", "a b c", "[a b c]"},
      {"tag:disk \"disk full\"", "a disk is full", "a [disk] is [full]"},
      {"Start", "start Start restart", "start [Start] restart", true},
      {"-Start", "Start -Start", "Start -[Start]", true},
      {"Start-", "Start", "Start", true},
      {"--", "a -- b", "a -- b"},
      {"", "a", "a"},
      {"disk", "", ""},
      {"日本 👩", "👩 日本語", "👩 日本語"},
  };
  for (const auto& [query, message, expected, matchCase] : rows) {
    SCOPED_TRACE(query);
    EXPECT_EQ(marked(query, message, matchCase), expected);
  }
  const LogQuery scan{QueryNode::fullText({" Disk\u00a0", FullTextMode::substringScan(), false})};
  EXPECT_THAT(WordMarks(scan, false).in("adiskDISKé"),
              ElementsAre(WordMarks::Range{1, 5}, WordMarks::Range{5, 9}));
  const LogQuery regex{QueryNode::fullText({"disk", FullTextMode::regex("disk"), false})};
  EXPECT_THAT(WordMarks(regex, false).in("disk"), IsEmpty());
}

// FTS5's own highlight() marks the words that the index found.
TEST(WordMarks, equalTheMarksOfTheIndex) {
  constexpr std::string_view kPieces[] = {
      "disk",   "Disk", "full", "a", "b",      "wi",  "wifi", "é",
      "ü",      "日本", ".",    "-", "_",      "100", "%",    "👩🏽‍🚀",
      "\u0301", "\"",   " ",    " ", "\u00a0", "x"};
  std::mt19937_64 random(7);
  const auto randomText = [&](std::uint64_t longest) {
    std::string text;
    for (auto pieces = random() % longest; pieces > 0; --pieces) {
      text += kPieces[random() % std::size(kPieces)];
    }
    return text;
  };
  const test::TemporaryFolder folder;
  const auto path = folder.file("a.db");
  auto store = *EventStore::open(path, true, SourceDescriptor::logcat());
  std::vector<LogRow> records;
  for (int i = 0; i < 300; ++i) records.push_back(test::row(randomText(30)));
  store.insert(records);
  int compared = 0;
  for (int i = 0; i < 300; ++i) {
    const auto words = randomText(4);
    const LogQuery query{QueryNode::fullText({words})};
    if (LogQuery::ftsMatch(words).empty()) continue;
    const WordMarks marks(query, false);
    auto quoted = LogQuery::ftsMatch(words);
    for (std::size_t at = 0; (at = quoted.find('\'', at)) != std::string::npos; at += 2) {
      quoted.insert(at, 1, '\'');
    }
    const auto expected = test::sql(
        path, fmt::format("SELECT highlight(events_fts, 0, '[', ']') FROM events_fts WHERE "
                          "events_fts MATCH '{}' ORDER BY rowid",
                          quoted));
    std::vector<std::string> found;
    for (const auto& [seq, row] : store.fetch(store.matchingSeqs(query, 0))) {
      std::string text(row.message());
      const auto ranges = marks.in(text);
      for (auto range = ranges.rbegin(); range != ranges.rend(); ++range) {
        text.insert(range->end, 1, ']').insert(range->begin, 1, '[');
      }
      found.push_back(std::move(text));
    }
    compared += static_cast<int>(found.size());
    EXPECT_EQ(found, expected) << words;
  }
  EXPECT_GT(compared, 1'000);
}

}  // namespace
}  // namespace runeflow
