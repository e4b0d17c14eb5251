// SPDX-License-Identifier: MIT
#include <sqlite3.h>

#include <algorithm>
#include <limits>

#include "runeflow/store/full_text_tokenizer_p.h"
#include "runeflow/store/sqlite_p.h"

namespace runeflow {
namespace {

// FTS5 cuts longer words, in the index and in queries.
constexpr std::size_t kLongestToken = 32'768;

constexpr std::size_t kLongestText = std::numeric_limits<int>::max();

}  // namespace

std::optional<FullTextTokenizer> FullTextTokenizer::of(Connection& connection) {
  fts5_api* api = connection.fullTextInterface();
  void* userData = nullptr;
  fts5_tokenizer methods{};
  Fts5Tokenizer* tokenizer = nullptr;
  if (!api || api->xFindTokenizer(api, "unicode61", &userData, &methods) != SQLITE_OK ||
      methods.xCreate(userData, nullptr, 0, &tokenizer) != SQLITE_OK) {
    return std::nullopt;
  }
  return FullTextTokenizer(tokenizer, methods);
}

FullTextTokenizer::FullTextTokenizer(Fts5Tokenizer* tokenizer, const fts5_tokenizer& methods)
    : tokenizer_(tokenizer, Delete{methods.xDelete}), tokenize_(methods.xTokenize) {}

void FullTextTokenizer::tokenize(std::string_view text, void* context, Callback use) const {
  struct Call {
    void* context;
    Callback use;
  } call{context, use};
  const auto onToken = [](void* opaque, int /*flags*/, const char* bytes, int size, int begin,
                          int end) {
    const auto& [inner, callback] = *static_cast<Call*>(opaque);
    const std::string_view folded(bytes, static_cast<std::size_t>(size));
    const bool goesOn =
        callback(inner, {folded.substr(0, kLongestToken), static_cast<std::size_t>(begin),
                         static_cast<std::size_t>(end)});
    return goesOn ? SQLITE_OK : SQLITE_DONE;
  };
  if (text.empty()) return;
  const auto size = std::min(text.size(), kLongestText);
  tokenize_(tokenizer_.get(), &call, FTS5_TOKENIZE_DOCUMENT, text.data(), static_cast<int>(size),
            onToken);
}

}  // namespace runeflow
