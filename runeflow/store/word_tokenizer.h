// SPDX-License-Identifier: MIT
/// \file
/// Cuts a text into words as the full-text index does.
///
///     const auto tokenizer = WordTokenizer::create();
///     // "zurich", "connected"
///     for (const auto& word : tokenizer->words("Zürich connected")) { … }
///
/// It calls the tokenizer of SQLite's FTS5 that the index uses, unicode61. Its words are therefore
/// those that a query finds.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "runeflow/platform/api.h"

namespace runeflow {

/// A word of a text.
struct WordToken {
  std::string folded;  ///< The word without case and diacritics, as the index keeps it.
  std::size_t begin;   ///< The first byte of the word in the text.
  std::size_t end;     ///< The byte after the last byte of the word.
  bool operator==(const WordToken&) const = default;
};

/// The tokenizer of the full-text index. It owns a database in memory. Only one thread at a time
/// may use an object. A moved-from tokenizer may only be assigned to or destroyed.
class RUNEFLOW_EXPORT WordTokenizer {
 public:
  /// Returns a tokenizer, or nothing if SQLite has no FTS5.
  static std::optional<WordTokenizer> create();

  WordTokenizer(WordTokenizer&&) noexcept;             ///< Takes the database of another tokenizer.
  WordTokenizer& operator=(WordTokenizer&&) noexcept;  ///< Takes the database of another tokenizer.
  ~WordTokenizer();

  /// Returns all words of `text` in order. Bytes that are not UTF-8 are read as the index reads
  /// them. Reads at most 2^31 - 1 bytes.
  std::vector<WordToken> words(std::string_view text) const;

  /// Calls `use` with each word of words() as it is folded. The view is valid during the call.
  void forEachWord(std::string_view text,
                   const std::function<void(std::string_view folded)>& use) const;

 private:
  class Implementation;
  explicit WordTokenizer(std::unique_ptr<Implementation> implementation);

  std::unique_ptr<Implementation> implementation_;
};

}  // namespace runeflow
