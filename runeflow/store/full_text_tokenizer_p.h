// SPDX-License-Identifier: MIT

// The tokenizer of the full-text index, FTS5's unicode61, called directly.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string_view>

struct fts5_tokenizer;
struct Fts5Tokenizer;

namespace runeflow {

class Connection;

// Owns one tokenizer of a connection, which it must not outlive. Only one thread at a time may use
// it. Invalid UTF-8 is read as the index reads it.
class FullTextTokenizer {
 public:
  // Absent if SQLite has no FTS5.
  static std::optional<FullTextTokenizer> of(Connection& connection);

  // One word: its bytes [begin, end) of the text, and the same folded (case and diacritics
  // removed), cut to the length that the index keeps. The view is valid during the call.
  struct Token {
    std::string_view folded;
    std::size_t begin;
    std::size_t end;
  };

  // Calls `use` with each word in order, until it returns false.
  template <class Use>
  void forEachToken(std::string_view text, Use use) const {
    tokenize(text, &use, [](void* context, const Token& token) {
      return (*static_cast<Use*>(context))(token);
    });
  }

 private:
  using Callback = bool (*)(void* context, const Token& token);
  struct Delete {
    void (*destroy)(Fts5Tokenizer*);
    void operator()(Fts5Tokenizer* tokenizer) const { destroy(tokenizer); }
  };

  FullTextTokenizer(Fts5Tokenizer* tokenizer, const fts5_tokenizer& methods);
  void tokenize(std::string_view text, void* context, Callback use) const;

  std::unique_ptr<Fts5Tokenizer, Delete> tokenizer_;
  int (*tokenize_)(Fts5Tokenizer*, void*, int, const char*, int,
                   int (*)(void*, int, const char*, int, int, int));
};

}  // namespace runeflow
