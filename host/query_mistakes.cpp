// SPDX-License-Identifier: MIT
#include "host/query_mistakes.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <limits>
#include <optional>
#include <variant>

#include "runeflow/query/query_parser.h"

namespace host {

using runeflow::EventStore;
using runeflow::FieldOp;
using runeflow::FieldPredicate;
using runeflow::LogQuery;
using runeflow::QueryNode;
using runeflow::SourceDescriptor;

namespace {

constexpr const char* kLevels = "trace, debug, info, warn, error and fatal";
constexpr std::size_t kLongestValue = 60;  // bytes; longer ones would hide the sentence

std::string lower(std::string_view text) {
  std::string result(text);
  for (char& c : result) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return result;
}

// The line with its quoted parts as they are typed, cut at white space and parentheses.
struct Reading {
  std::vector<std::string> words;
  int openParentheses = 0;
  bool isQuoteOpen = false;
};

Reading readingOf(std::string_view line) {
  Reading reading;
  std::string word;
  const auto endWord = [&] {
    if (!word.empty()) reading.words.push_back(std::move(word));
    word.clear();
  };
  for (const char c : line) {
    if (c == '"') reading.isQuoteOpen = !reading.isQuoteOpen;
    const bool isParenthesis = !reading.isQuoteOpen && (c == '(' || c == ')');
    if (isParenthesis || (!reading.isQuoteOpen && std::isspace(static_cast<unsigned char>(c)))) {
      endWord();
    } else {
      word += c;
    }
    if (!isParenthesis) continue;
    // A closing parenthesis without its counterpart is skipped by the parser.
    reading.openParentheses = std::max(0, reading.openParentheses + (c == '(' ? 1 : -1));
  }
  endWord();
  return reading;
}

bool isNameLike(std::string_view text) {
  return !text.empty() && std::isalpha(static_cast<unsigned char>(text.front())) &&
         std::ranges::all_of(text, [](unsigned char c) { return std::isalnum(c) || c == '_'; });
}

std::vector<std::string> fieldNames(const SourceDescriptor& descriptor) {
  std::vector<std::string> names;
  for (const auto& field : descriptor.queryableFields()) {
    if (field.column() != runeflow::StoreColumn::timestamp()) names.push_back(field.name());
  }
  return names;
}

std::string listOf(const std::vector<std::string>& names, std::string_view last) {
  std::string list;
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (i > 0) list += i + 1 == names.size() ? last : std::string_view(", ");
    list += names[i];
  }
  return list;
}

bool isLevel(std::string_view field) {
  return lower(field) == "level";
}

// The level that a letter, a number or the name of another tool stands for; empty if none does.
std::string_view levelFor(std::string_view value) {
  static constexpr struct {
    std::string_view typed;
    std::string_view level;
  } kForms[] = {{"v", "trace"},       {"verbose", "trace"},    {"t", "trace"}, {"0", "trace"},
                {"d", "debug"},       {"dbg", "debug"},        {"1", "debug"}, {"i", "info"},
                {"inf", "info"},      {"information", "info"}, {"2", "info"},  {"w", "warn"},
                {"warnings", "warn"}, {"wrn", "warn"},         {"3", "warn"},  {"e", "error"},
                {"errors", "error"},  {"4", "error"},          {"f", "fatal"}, {"a", "fatal"},
                {"assert", "fatal"},  {"crit", "fatal"},       {"5", "fatal"}};
  const auto name = lower(value);
  const auto* found =
      std::ranges::find_if(kForms, [&](const auto& form) { return form.typed == name; });
  return found == std::end(kForms) ? std::string_view() : found->level;
}

std::string unknownLevel(std::string_view value) {
  if (const auto level = levelFor(value); !level.empty()) {
    return fmt::format("there is no level '{}'; level:{} finds that level and more severe ones",
                       value, level);
  }
  return fmt::format("there is no level '{}'; the levels are {}", value, kLevels);
}

std::string unknownField(std::string_view name, const SourceDescriptor& descriptor) {
  const auto names = fieldNames(descriptor);
  const auto list = listOf(names, " and ");
  if (lower(name) == "message" || lower(name) == "msg" || lower(name) == "text") {
    return fmt::format(
        "there is no field '{}', words without a field search the message; the fields are {}", name,
        list);
  }
  if (lower(name) == "time" || lower(name) == "timestamp" || lower(name) == "date") {
    return fmt::format(
        "there is no field '{}', --since and --until choose times; the fields are {}", name, list);
  }
  const auto near = nearest(name, names);
  return near.empty() ? fmt::format("there is no field '{}'; the fields are {}", name, list)
                      : fmt::format("there is no field '{}'; did you mean {}? The fields are {}",
                                    name, near, list);
}

// A comparison in the manner of other languages: level>=warn, tag=Net.
std::optional<std::string> comparison(std::string_view word, const SourceDescriptor& descriptor) {
  const auto at = word.find_first_of("=<>!~");
  if (at == std::string_view::npos || at == 0) return std::nullopt;
  const auto end = word.find_first_not_of("=<>!~:", at);
  const auto name = word.substr(0, word[at - 1] == ':' ? at - 1 : at);
  const auto* field = descriptor.field(name);
  if (!field || !field->queryable()) return std::nullopt;
  const auto sign = word.substr(at, end == std::string_view::npos ? end : end - at);
  const auto value = end == std::string_view::npos ? std::string_view() : word.substr(end);
  const bool isNegation = sign.contains('!');
  if (isLevel(name)) {
    const auto form = levelFor(value);
    const bool isKnown = runeflow::QueryParser::levelValue(value).has_value();
    const auto level = isKnown ? lower(value) : std::string(form.empty() ? "warn" : form);
    if (sign.contains('<')) {
      return fmt::format("'{}' is searched as text; NOT level:{} finds what is less severe", word,
                         level);
    }
    return fmt::format("'{}' is searched as text; level:{} finds that level and more severe ones",
                       word, level);
  }
  return fmt::format("'{}' is searched as text; a condition on a field is {}{}:{}", word,
                     isNegation ? "NOT " : "", field->name(), value.empty() ? "VALUE" : value);
}

std::string mistakeInWord(std::string_view word, const SourceDescriptor& descriptor) {
  const auto name = lower(word);
  if (word == name && (name == "and" || name == "or" || name == "not")) {
    std::string upper = name;
    for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return fmt::format("'{}' is searched as a word; the operator is {}", word, upper);
  }
  std::string plain(word);
  std::erase(plain, '"');
  if (const auto found = comparison(plain, descriptor)) return *found;
  const auto colon = plain.find(':');
  if (colon == std::string::npos) return {};
  const auto field = std::string_view(plain).substr(0, colon);
  const auto value = std::string_view(plain).substr(colon + 1);
  if (value.empty() && descriptor.field(field)) {
    return fmt::format("'{}' lacks a value; write {}VALUE without a blank", plain, plain);
  }
  const bool isAddress = value.starts_with("//") || value.starts_with(':') || value.empty();
  if (isAddress || !isNameLike(field)) return {};
  const auto* known = descriptor.field(field);
  const bool isKnown =
      known && known->queryable() && known->column() != runeflow::StoreColumn::timestamp();
  if (!isKnown) return unknownField(field, descriptor);
  if (isLevel(field) && !runeflow::QueryParser::levelValue(value)) return unknownLevel(value);
  return {};
}

void collectFields(const QueryNode& node, std::vector<FieldPredicate>& fields) {
  if (std::holds_alternative<QueryNode::Not>(node.value())) return;
  if (const auto* field = std::get_if<FieldPredicate>(&node.value())) fields.push_back(*field);
  for (const auto& child : node.children()) collectFields(child, fields);
}

std::string otherValuesFor(EventStore& store, const FieldPredicate& typed) {
  constexpr std::int64_t kMostValues = 3;
  const auto* slot = std::get_if<runeflow::StoreColumn::Slot>(&typed.column.value());
  const auto* text = typed.value ? std::get_if<std::string>(&typed.value->value()) : nullptr;
  if (!slot || !text || typed.op != FieldOp::equals || text->size() > kLongestValue) return {};
  constexpr auto kEnd = std::numeric_limits<std::int64_t>::max();
  if (!store.newestMatching({QueryNode::field(typed)}, kEnd, 1).empty()) return {};
  auto prefix = *text;
  while (prefix.ends_with('*') || prefix.ends_with('%')) prefix.pop_back();
  const auto& fields = store.descriptor().fields();
  const auto field = std::ranges::find(fields, typed.column, &runeflow::FieldDescriptor::column);
  if (prefix.empty() || field == fields.end()) return {};
  auto values = store.valuesInOrder(typed.column, prefix, kMostValues);
  std::erase_if(values, [](const auto& value) { return value.size() > kLongestValue; });
  if (values.empty()) return {};
  for (auto& value : values) {
    const bool needsQuotes = value.find_first_of(" ()\t") != std::string::npos;
    value = fmt::format("{}:{}{}{}", field->name(), needsQuotes ? "\"" : "", value,
                        needsQuotes ? "\"" : "");
  }
  return fmt::format("no record has the {} '{}'; did you mean {}?", field->name(), *text,
                     listOf(values, " or "));
}

}  // namespace

std::string mistakeIn(std::string_view line, const SourceDescriptor& descriptor) {
  const auto reading = readingOf(line);
  if (reading.isQuoteOpen) {
    return "a quote is not closed, so that the rest of the line is one word; close or remove it";
  }
  if (reading.openParentheses > 0) return "a parenthesis is not closed; close it with )";
  for (const auto& word : reading.words) {
    if (auto mistake = mistakeInWord(word, descriptor); !mistake.empty()) return mistake;
  }
  return {};
}

std::string otherValuesFor(EventStore& store, const LogQuery& query) {
  constexpr std::size_t kMostFields = 8;
  std::vector<FieldPredicate> fields;
  collectFields(query.root, fields);
  if (fields.size() > kMostFields) fields.resize(kMostFields, fields.front());
  for (const auto& field : fields) {
    if (auto hint = otherValuesFor(store, field); !hint.empty()) return hint;
  }
  return {};
}

std::string nearest(std::string_view name, const std::vector<std::string>& names) {
  constexpr std::size_t kLongestName = 40;
  if (name.size() > kLongestName) return {};
  // The number of edits by which the first i letters of `name` become the first j of the other.
  const auto distance = [typed = lower(name)](const std::string& other) {
    const auto rows = typed.size() + 1;
    const auto columns = other.size() + 1;
    std::vector<std::vector<std::size_t>> edits(rows, std::vector<std::size_t>(columns));
    for (std::size_t i = 0; i < rows; ++i) {
      for (std::size_t j = 0; j < columns; ++j) {
        if (i == 0 || j == 0) {
          edits[i][j] = i + j;
          continue;
        }
        const std::size_t replaced = typed[i - 1] == other[j - 1] ? 0 : 1;
        edits[i][j] =
            std::min({edits[i - 1][j] + 1, edits[i][j - 1] + 1, edits[i - 1][j - 1] + replaced});
        const bool isSwap =
            i > 1 && j > 1 && typed[i - 1] == other[j - 2] && typed[i - 2] == other[j - 1];
        if (isSwap) edits[i][j] = std::min(edits[i][j], edits[i - 2][j - 2] + 1);
      }
    }
    return edits[rows - 1][columns - 1];
  };
  std::string best;
  std::size_t fewest = 3;
  for (const auto& other : names) {
    const auto edits = distance(lower(other));
    if (edits >= fewest || edits * 3 > std::max(name.size(), other.size())) continue;
    fewest = edits;
    best = other;
  }
  return best;
}

}  // namespace host
