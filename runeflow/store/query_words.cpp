// SPDX-License-Identifier: MIT
#include "runeflow/store/query_words_p.h"

namespace runeflow {

std::vector<TypedWord> typedWords(std::string_view ftsExpression) {
  std::vector<TypedWord> words;
  bool isInQuotes = false;
  for (std::size_t i = 0; i < ftsExpression.size(); ++i) {
    const char c = ftsExpression[i];
    const bool isDoubled = isInQuotes && c == '"' && ftsExpression.substr(i + 1).starts_with('"');
    if (isDoubled) ++i;
    if (c == '"' && !isDoubled) {
      if (!isInQuotes) words.emplace_back();
      isInQuotes = !isInQuotes;
    } else if (isInQuotes) {
      words.back().text += c;
    } else if (c == '*' && !words.empty()) {
      words.back().isPrefix = true;
    }
  }
  return words;
}

}  // namespace runeflow
