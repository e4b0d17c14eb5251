// SPDX-License-Identifier: MIT
#include "query_hints.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/deadline.h"
#include "host/message_marks.h"
#include "host/query_mistakes.h"
#include "output.h"
#include "runeflow/query/query_parser.h"

namespace cli {

using runeflow::EventStore;
using runeflow::LogQuery;
using runeflow::QueryNode;

namespace {

constexpr std::chrono::milliseconds kPatience{300};

// Returns false for a stream that is closed or goes to the null device, for which no hint is worth
// a read. See reserveStandardDescriptors() for the closed ones.
bool reachesSomebody(int stream) {
  struct stat status{};
  struct stat null{};
  if (::fstat(stream, &status) != 0) return false;
  return ::stat("/dev/null", &null) != 0 || status.st_rdev != null.st_rdev ||
         !S_ISCHR(status.st_mode);
}

// Appends the words of the full-text terms that are not under a NOT.
void collectWords(const QueryNode& node, std::vector<std::string>& words) {
  if (std::holds_alternative<QueryNode::Not>(node.value())) return;
  if (std::holds_alternative<runeflow::FullTextTerm>(node.value())) {
    auto found = runeflow::QueryParser::highlightTerms(node);
    words.insert(words.end(), found.begin(), found.end());
  }
  for (const auto& child : node.children()) collectWords(child, words);
}

std::optional<std::int64_t> newestOf(EventStore& store, QueryNode root) {
  constexpr auto kEnd = std::numeric_limits<std::int64_t>::max();
  const auto seqs = store.newestMatching({std::move(root)}, kEnd, 1);
  return seqs.empty() ? std::nullopt : std::optional(seqs.front());
}

// Returns the text between white space that holds the `word` in the message.
std::string surrounding(std::string_view message, std::string_view word) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const auto at = host::findIgnoringCase(message, word);
  if (at == std::string_view::npos) return std::string(word);
  const auto before = message.find_last_of(kBlanks, at);
  const auto begin = before == std::string_view::npos ? 0 : before + 1;
  const auto end = message.find_first_of(kBlanks, at + word.size());
  return std::string(message.substr(begin, std::min(end, message.size()) - begin));
}

// Returns the word as a shell reads it back.
std::string shellWord(std::string_view word) {
  const auto isPlain = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("_./:@%+,-").contains(c);
  };
  if (std::ranges::all_of(word, isPlain) && !word.starts_with('-')) return std::string(word);
  std::string quoted = "'";
  for (const char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + '\'';
}

// Prints a hint if no message has the word but some have its letters. Returns true if it did.
bool hintAtSubstring(EventStore& store, const std::string& word) {
  constexpr std::size_t kLongestExample = 80;  // bytes
  if (newestOf(store, QueryNode::fullText({word}))) return false;
  const auto seq =
      newestOf(store, QueryNode::field({runeflow::StoreColumn::message(),
                                        runeflow::FieldOp::contains, runeflow::Bind::text(word)}));
  if (!seq) return false;
  const auto records = store.fetchRange(*seq, *seq);
  if (records.empty()) return false;
  const auto example = surrounding(records.front().row.message(), word);
  say("no message has a word that {} '{}', but some have these letters within a word{}; "
      "--contains {} finds them",
      LogQuery::isPrefixWord(word) ? "begins with" : "is", word,
      example.size() > kLongestExample ? std::string() : fmt::format(", as in '{}'", example),
      shellWord(word));
  return true;
}

}  // namespace

void hintAt(EventStore& store, std::string_view line, const LogQuery& query) {
  constexpr std::size_t kMostWords = 8;
  if (!reachesSomebody(STDERR_FILENO)) return;
  if (const auto mistake = host::mistakeIn(line, store.descriptor()); !mistake.empty()) {
    return say("{}", mistake);
  }
  const host::Deadline deadline(store, kPatience);
  if (const auto others = host::otherValuesFor(store, query); !others.empty()) {
    return say("{}", others);
  }
  std::vector<std::string> words;
  collectWords(query.root, words);
  if (words.size() > kMostWords) words.resize(kMostWords);
  for (const auto& word : words) {
    if (hintAtSubstring(store, word)) return;
  }
}

}  // namespace cli
