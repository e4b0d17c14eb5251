// SPDX-License-Identifier: MIT

// The words of a full-text condition, cut as the index cuts them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace runeflow {

// One typed word. It may hold several tokens, which a message must hold side by side and in order;
// "a.b" is the phrase "a b".
struct QueryWord {
  std::string text;                 // as typed
  bool isPrefix = false;            // the last token may be the beginning of a longer one
  std::vector<std::string> tokens;  // folded
  std::size_t firstToken = 0;       // where the first token begins in `text`

  // Returns whether `folded` may stand for the token `index` of this word.
  bool matches(std::size_t index, std::string_view folded) const {
    const bool mayBeLonger = isPrefix && index + 1 == tokens.size();
    return mayBeLonger ? folded.starts_with(tokens[index]) : folded == tokens[index];
  }
};

// A word as a MATCH expression of LogQuery::ftsMatch() holds it.
struct TypedWord {
  std::string text;
  bool isPrefix = false;
};

// Reads an expression that LogQuery::ftsMatch() has written: words in double quotes, with "*"
// after a prefix. Other texts give some list of words.
std::vector<TypedWord> typedWords(std::string_view ftsExpression);

// Returns the words of an expression of LogQuery::ftsMatch() that hold a token; FTS5 ignores the
// others. An expression of which none is left matches no message. `Tokenizer` has forEachToken().
template <class Tokenizer>
std::vector<QueryWord> queryWords(std::string_view ftsExpression, const Tokenizer& tokenizer) {
  std::vector<QueryWord> words;
  for (auto& typed : typedWords(ftsExpression)) {
    QueryWord word{std::move(typed.text), typed.isPrefix, {}, 0};
    tokenizer.forEachToken(word.text, [&](const auto& token) {
      if (word.tokens.empty()) word.firstToken = token.begin;
      word.tokens.emplace_back(token.folded);
      return true;
    });
    if (!word.tokens.empty()) words.push_back(std::move(word));
  }
  return words;
}

}  // namespace runeflow
