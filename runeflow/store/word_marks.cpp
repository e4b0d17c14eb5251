// SPDX-License-Identifier: MIT
#include "runeflow/store/word_marks.h"

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "runeflow/platform/unicode_p.h"
#include "runeflow/store/query_words_p.h"
#include "runeflow/store/word_tokenizer.h"

namespace runeflow {
namespace {

char lowerAscii(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

// Gives queryWords() the words of a WordTokenizer.
struct TokenSource {
  const WordTokenizer& tokenizer;

  template <class Use>
  void forEachToken(std::string_view text, Use use) const {
    for (const auto& word : tokenizer.words(text)) use(word);
  }
};

struct Word {
  QueryWord word;
  bool matchCase;
};

}  // namespace

class WordMarks::Implementation {
 public:
  Implementation(const LogQuery& query, bool matchCase) { collect(query.root, matchCase); }

  std::vector<Range> in(std::string_view message) const {
    std::vector<Range> ranges;
    if (!words_.empty()) markWords(message, ranges);
    for (const auto& text : substrings_) markSubstring(message, text, ranges);
    return joined(std::move(ranges));
  }

 private:
  void collect(const QueryNode& node, bool matchCase) {
    if (std::holds_alternative<QueryNode::Not>(node.value())) return;
    if (const auto* term = std::get_if<FullTextTerm>(&node.value())) add(*term, matchCase);
    for (const auto& child : node.children()) collect(child, matchCase);
  }

  void add(const FullTextTerm& term, bool matchCase) {
    if (std::holds_alternative<FullTextMode::Regex>(term.mode.value())) return;
    if (tokenizer_ && std::holds_alternative<FullTextMode::Fts>(term.mode.value())) {
      for (auto& word : queryWords(LogQuery::ftsMatch(term.raw), TokenSource{*tokenizer_})) {
        words_.push_back({std::move(word), matchCase || term.matchCase});
      }
      return;
    }
    const auto text = unicode::trimWhiteSpace(term.raw);
    if (!text.empty()) substrings_.emplace_back(text.substr(0, text.find('\0')));
  }

  void markWords(std::string_view message, std::vector<Range>& ranges) const {
    const auto tokens = tokenizer_->words(message);
    for (const auto& [word, matchCase] : words_) {
      for (std::size_t first = 0; first + word.tokens.size() <= tokens.size(); ++first) {
        std::size_t index = 0;
        while (index < word.tokens.size() && word.matches(index, tokens[first + index].folded)) {
          ++index;
        }
        if (index < word.tokens.size()) continue;
        const auto begin = tokens[first].begin;
        if (matchCase && !isExact(message, begin, word)) continue;
        ranges.push_back({begin, tokens[first + index - 1].end});
      }
    }
  }

  // The first token stands at `begin`; the typed word may begin before it, as "(" in "(Start)".
  static bool isExact(std::string_view message, std::size_t begin, const QueryWord& word) {
    return begin >= word.firstToken &&
           message.substr(begin - word.firstToken).starts_with(word.text);
  }

  static void markSubstring(std::string_view message, std::string_view text,
                            std::vector<Range>& ranges) {
    const auto isSame = [](char a, char b) { return lowerAscii(a) == lowerAscii(b); };
    auto from = message.begin();
    while (!text.empty()) {
      const auto found = std::search(from, message.end(), text.begin(), text.end(), isSame);
      if (found == message.end()) return;
      const auto begin = static_cast<std::size_t>(found - message.begin());
      ranges.push_back({begin, begin + text.size()});
      from = found + static_cast<std::ptrdiff_t>(text.size());
    }
  }

  static std::vector<Range> joined(std::vector<Range> ranges) {
    std::ranges::sort(ranges, {},
                      [](const Range& range) { return std::pair(range.begin, range.end); });
    std::vector<Range> apart;
    for (const auto& range : ranges) {
      if (apart.empty() || range.begin >= apart.back().end) {
        apart.push_back(range);
      } else {
        apart.back().end = std::max(apart.back().end, range.end);
      }
    }
    return apart;
  }

  std::optional<WordTokenizer> tokenizer_ = WordTokenizer::create();
  std::vector<Word> words_;
  std::vector<std::string> substrings_;
};

WordMarks::WordMarks(const LogQuery& query, bool matchCase)
    : implementation_(std::make_unique<Implementation>(query, matchCase)) {}
WordMarks::WordMarks(WordMarks&&) noexcept = default;
WordMarks& WordMarks::operator=(WordMarks&&) noexcept = default;
WordMarks::~WordMarks() = default;

std::vector<WordMarks::Range> WordMarks::in(std::string_view message) const {
  return implementation_->in(message);
}

}  // namespace runeflow
