// SPDX-License-Identifier: MIT
#include "runeflow/store/word_tokenizer.h"

#include <sqlite3.h>

#include <utility>

#include "runeflow/store/full_text_tokenizer_p.h"
#include "runeflow/store/sqlite_p.h"

namespace runeflow {

// The tokenizer is destroyed before its connection.
class WordTokenizer::Implementation {
 public:
  Connection connection = Connection::open(":memory:", SQLITE_OPEN_READWRITE);
  std::optional<FullTextTokenizer> tokenizer = FullTextTokenizer::of(connection);
};

WordTokenizer::WordTokenizer(std::unique_ptr<Implementation> implementation)
    : implementation_(std::move(implementation)) {}
WordTokenizer::WordTokenizer(WordTokenizer&&) noexcept = default;
WordTokenizer& WordTokenizer::operator=(WordTokenizer&&) noexcept = default;
WordTokenizer::~WordTokenizer() = default;

std::optional<WordTokenizer> WordTokenizer::create() {
  auto implementation = std::make_unique<Implementation>();
  if (!implementation->tokenizer) return std::nullopt;
  return WordTokenizer(std::move(implementation));
}

std::vector<WordToken> WordTokenizer::words(std::string_view text) const {
  std::vector<WordToken> words;
  implementation_->tokenizer->forEachToken(text, [&](const FullTextTokenizer::Token& token) {
    words.push_back({std::string(token.folded), token.begin, token.end});
    return true;
  });
  return words;
}

void WordTokenizer::forEachWord(std::string_view text,
                                const std::function<void(std::string_view folded)>& use) const {
  implementation_->tokenizer->forEachToken(text, [&](const FullTextTokenizer::Token& token) {
    use(token.folded);
    return true;
  });
}

}  // namespace runeflow
