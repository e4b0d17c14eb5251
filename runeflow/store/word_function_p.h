// SPDX-License-Identifier: MIT

// An SQL function that judges a message by its words, as the full-text index would.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "runeflow/store/full_text_tokenizer_p.h"
#include "runeflow/store/query_words_p.h"

struct sqlite3_context;
struct sqlite3_value;

namespace runeflow {

class Connection;

// Finds the words of a MATCH expression in messages, in one pass without a list of their tokens.
class WordMatcher {
 public:
  explicit WordMatcher(std::vector<QueryWord> words)
      : words_(std::move(words)), begun_(words_.size()), isFound_(words_.size()) {}

  bool matches(std::string_view message, const FullTextTokenizer& tokenizer);

 private:
  bool mayMatch(std::string_view message);
  bool endsWord(std::size_t word, std::string_view token);

  std::vector<QueryWord> words_;
  // For each word, how many of its tokens stand before the present one, for each place where it may
  // have begun.
  std::vector<std::vector<std::size_t>> begun_;
  std::vector<bool> isFound_;
  std::string lowered_;  // mayMatch() reuses its memory
};

class WordFunction {
 public:
  // The function does not look at longer messages: in bytes.
  static constexpr std::size_t longestMessage = 65'536;

  // Defines kHasWordsFunction on the connection, which owns the result. Null without FTS5.
  static WordFunction* defineOn(Connection& connection);

  // Returns whether a message was too long to be judged since the last call.
  bool takeWasTooLong() { return std::exchange(wasTooLong_, false); }

 private:
  explicit WordFunction(FullTextTokenizer tokenizer) : tokenizer_(std::move(tokenizer)) {}
  static void call(sqlite3_context* context, int count, sqlite3_value** values);

  FullTextTokenizer tokenizer_;
  bool wasTooLong_ = false;
};

}  // namespace runeflow
