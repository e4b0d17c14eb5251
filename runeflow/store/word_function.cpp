// SPDX-License-Identifier: MIT
#include <sqlite3.h>

#include <algorithm>
#include <memory>

#include "runeflow/query/judging_clause_p.h"
#include "runeflow/store/sqlite_p.h"
#include "runeflow/store/word_function_p.h"

namespace runeflow {
namespace {

// Null for NULL.
std::string_view textOf(sqlite3_value* value) {
  const auto* bytes = reinterpret_cast<const char*>(sqlite3_value_text(value));
  if (!bytes) return {};
  return {bytes, static_cast<std::size_t>(sqlite3_value_bytes(value))};
}

}  // namespace

bool WordMatcher::matches(std::string_view message, const FullTextTokenizer& tokenizer) {
  for (auto& begun : begun_) begun.clear();
  isFound_.assign(words_.size(), false);
  auto missing = words_.size();
  if (missing == 0 || !mayMatch(message)) return false;
  tokenizer.forEachToken(message, [&](const FullTextTokenizer::Token& token) {
    for (std::size_t word = 0; word < words_.size(); ++word) {
      if (isFound_[word] || !endsWord(word, token.folded)) continue;
      isFound_[word] = true;
      --missing;
    }
    return missing > 0;
  });
  return missing == 0;
}

// Returns whether the message is worth a look at its words. The words of an ASCII message stand in
// it letter by letter, in upper or lower case; to search them takes a tenth of the time of
// cutting all words.
bool WordMatcher::mayMatch(std::string_view message) {
  lowered_.resize(message.size());
  char* lowered = lowered_.data();  // a local pointer: the compiler then treats many bytes at once
  unsigned char all = 0;
  for (const char character : message) {
    const auto c = static_cast<unsigned char>(character);
    const bool isUpperCase = static_cast<unsigned char>(c - 'A') < 26;
    all |= c;
    *lowered++ = static_cast<char>(isUpperCase ? c | 0x20U : c);
  }
  return all >= 0x80 || std::ranges::all_of(words_, [&](const QueryWord& word) {
           return lowered_.find(word.tokens.front()) != std::string::npos;
         });
}

// Returns whether `token` is the last of a place where the word stands.
bool WordMatcher::endsWord(std::size_t word, std::string_view token) {
  const auto& wanted = words_[word];
  auto& begun = begun_[word];
  bool ends = false;
  std::size_t kept = 0;
  for (const auto before : begun) {
    if (!wanted.matches(before, token)) continue;
    ends = ends || before + 1 == wanted.tokens.size();
    begun[kept++] = before + 1;
  }
  begun.resize(kept);
  if (!wanted.matches(0, token)) return ends;
  if (wanted.tokens.size() == 1) return true;
  begun.push_back(1);
  return ends;
}

WordFunction* WordFunction::defineOn(Connection& connection) {
  auto tokenizer = FullTextTokenizer::of(connection);
  if (!tokenizer) return nullptr;
  // SQLite calls the destructor also if it does not define the function.
  auto* function = new WordFunction(*std::move(tokenizer));
  constexpr int kFlags = SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_DIRECTONLY;
  const int result = sqlite3_create_function_v2(
      connection.handle(), kHasWordsFunction, 2, kFlags, function, call, nullptr, nullptr,
      [](void* defined) { delete static_cast<WordFunction*>(defined); });
  return result == SQLITE_OK ? function : nullptr;
}

void WordFunction::call(sqlite3_context* context, int /*count*/, sqlite3_value** values) {
  auto& self = *static_cast<WordFunction*>(sqlite3_user_data(context));
  const auto message = textOf(values[0]);
  if (message.size() > longestMessage) {
    self.wasTooLong_ = true;
    return sqlite3_result_int(context, 0);
  }
  // The expression is the same for all rows of a statement; SQLite keeps what was made of it.
  auto* matcher = static_cast<WordMatcher*>(sqlite3_get_auxdata(context, 1));
  std::unique_ptr<WordMatcher> made;
  if (!matcher) {
    made = std::make_unique<WordMatcher>(queryWords(textOf(values[1]), self.tokenizer_));
    matcher = made.get();
  }
  sqlite3_result_int(context, matcher->matches(message, self.tokenizer_) ? 1 : 0);
  if (made) {
    sqlite3_set_auxdata(context, 1, made.release(),
                        [](void* kept) { delete static_cast<WordMatcher*>(kept); });
  }
}

}  // namespace runeflow
