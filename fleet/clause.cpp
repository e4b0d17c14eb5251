// SPDX-License-Identifier: MIT

#include "fleet/clause.h"

#include <fmt/format.h>

#include <charconv>
#include <cmath>
#include <utility>
#include <variant>
#include <vector>

#include "fleet/kinds.h"
#include "fleet/sql.h"
#include "fleet/table.h"
#include "runeflow/query/query_parser.h"

namespace fleet {

using namespace runeflow;

namespace {

template <class... Cases>
struct overloaded : Cases... {
  using Cases::operator()...;
};

constexpr const char* kNothing = "0";
constexpr const char* kEverything = "1";

// SQLite binds a text up to its first NUL.
std::string_view untilNul(std::string_view text) {
  return text.substr(0, text.find('\0'));
}

// As SQLite's LIKE and ClickHouse's lower(): ASCII letters only.
std::string lowerAscii(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c | 0x20);
  }
  return lower;
}

// The two conditions that a leaf can become.
struct Sides {
  std::string whenTrue;
  std::string whenFalse;

  Sides swapped() && { return {std::move(whenFalse), std::move(whenTrue)}; }
};

// A condition that every record satisfies or not; `sql` must not be NULL for any record.
Sides plain(std::string sql) {
  auto opposite = fmt::format("NOT ({})", sql);
  return {std::move(sql), std::move(opposite)};
}

Sides constant(bool isTrue) {
  return isTrue ? Sides{kEverything, kNothing} : Sides{kNothing, kEverything};
}

// What the store cannot decide is neither true nor false.
Sides undecided() {
  return {kNothing, kNothing};
}

// A column of the table, as an expression.
struct Column {
  std::string sql;
  bool isNumber = false;
  bool mayBeNull = false;

  // Whether `left` and `right` compare as the operators say.
  Sides compared(std::string_view left, std::string_view op, std::string_view opposite,
                 std::string_view right) const {
    const auto side = [&](std::string_view used) {
      const auto comparison = fmt::format("{} {} {}", left, used, right);
      return mayBeNull ? fmt::format("ifNull({}, 0)", comparison) : comparison;
    };
    return {side(op), side(opposite)};
  }
  std::string asText() const { return isNumber ? fmt::format("toString({})", sql) : sql; }
};

// Converts a bound text that is compared with an integer column as SQLite's numeric affinity does.
// Returns absence if the text is no number: then it is greater than every number.
std::optional<std::string> numericLiteral(std::string_view text) {
  while (text.starts_with(' ')) text.remove_prefix(1);
  while (text.ends_with(' ')) text.remove_suffix(1);
  const char* end = text.data() + text.size();
  std::int64_t whole = 0;
  if (const auto parsed = std::from_chars(text.data(), end, whole);
      parsed.ec == std::errc() && parsed.ptr == end) {
    return sqlNumber(whole);
  }
  double real = 0;
  const auto parsed = std::from_chars(text.data(), end, real);
  if (parsed.ec != std::errc() || parsed.ptr != end || !std::isfinite(real)) return std::nullopt;
  return fmt::format("{}", real);
}

std::string_view textOf(const std::optional<Bind>& value) {
  const auto* text = value ? std::get_if<std::string>(&value->value()) : nullptr;
  return text ? untilNul(*text) : std::string_view{};
}

class Compiler {
 public:
  Compiler(const SourceDescriptor& descriptor, const WordTokenizer& tokenizer)
      : descriptor_(descriptor), tokenizer_(tokenizer) {}

  // Returns the condition under which the node is true, or false.
  std::string write(const QueryNode& node, bool wanted) {
    const auto children = node.children();
    if (children.empty()) return writeLeaf(node, wanted);
    if (std::holds_alternative<QueryNode::Not>(node.value())) {
      return write(children.front(), !wanted);
    }
    if (children.size() == 1) return write(children.front(), wanted);
    const bool isOr = std::holds_alternative<QueryNode::Or>(node.value());
    std::string clause = "(";
    for (const auto& child : children) {
      if (clause.size() > 1) clause += isOr == wanted ? " OR " : " AND ";
      clause += write(child, wanted);
    }
    return clause += ')';
  }

 private:
  // Not inlined, because each level of the tree takes another stack frame of write().
  [[gnu::noinline]] std::string writeLeaf(const QueryNode& node, bool wanted) {
    auto sides =
        std::visit(overloaded{
                       [&](const FieldPredicate& predicate) { return field(predicate); },
                       [](const ContextPredicate& predicate) { return context(predicate); },
                       [&](const FullTextTerm& term) { return fullText(term); },
                       [](const auto&) { return constant(true); },
                   },
                   node.value());
    return wanted ? std::move(sides.whenTrue) : std::move(sides.whenFalse);
  }

  std::optional<Column> columnOf(const StoreColumn& column) const {
    if (column == kCaptureColumn) return Column{"capture"};
    if (column == kKindColumn) return Column{"kind"};
    return std::visit(
        overloaded{
            [](StoreColumn::Level) { return std::optional(Column{"level", true}); },
            [](StoreColumn::Timestamp) { return std::optional(Column{"time", true}); },
            [](StoreColumn::Message) { return std::optional(Column{"message"}); },
            [&](StoreColumn::Slot slot) -> std::optional<Column> {
              const auto name = fieldInSlot(descriptor_, slot.index);
              if (!name) return std::nullopt;
              return Column{sqlName(*name), false, true};
            },
        },
        column.value());
  }

  Sides field(const FieldPredicate& predicate) const {
    const auto column = columnOf(predicate.column);
    if (!column) {  // a slot that these records never fill
      return predicate.op == FieldOp::isNullOrEmpty ? constant(true) : undecided();
    }
    const auto text = textOf(predicate.value);
    switch (predicate.op) {
      case FieldOp::equals:
        return equals(predicate, *column);
      case FieldOp::notEquals:
        return equals(predicate, *column).swapped();
      case FieldOp::contains:
        if (text.empty()) return beginsWith(*column, text);
        return column->compared(
            fmt::format("position(lower({}), {})", column->asText(), sqlText(lowerAscii(text))),
            ">", "=", "0");
      case FieldOp::prefix:
        return beginsWith(*column, text);
      case FieldOp::notPrefix:
        return beginsWith(*column, text).swapped();
      case FieldOp::greaterOrEqual:
        return ordered(predicate, *column, ">=", "<", false);
      case FieldOp::lessOrEqual:
        return ordered(predicate, *column, "<=", ">", true);
      case FieldOp::isNullOrEmpty:
        if (column->isNumber) return constant(false);
        return Column{}.compared(fmt::format("ifNull({}, '')", column->sql), "=", "!=", "''");
    }
    return undecided();
  }

  static Sides beginsWith(const Column& column, std::string_view text) {
    return column.compared(
        fmt::format("startsWith(lower({}), {})", column.asText(), sqlText(lowerAscii(text))), "=",
        "!=", "1");
  }

  // The table is ordered by `source`, which holds the field of the application. It is therefore
  // asked instead of the field's own column, unless an absent field has to be told from an empty
  // one.
  Sides equals(const FieldPredicate& predicate, const Column& column) const {
    const auto text = textOf(predicate.value);
    const bool isText =
        !predicate.value || std::holds_alternative<std::string>(predicate.value->value());
    auto sides = ordered(predicate, column, "=", "!=", std::nullopt);
    if (isText && !text.empty() && predicate.column == descriptor_.appColumn() &&
        column.mayBeNull) {
      sides.whenTrue = fmt::format("source = {}", sqlText(text));
    }
    return sides;
  }

  // `textIsMore` is the result if the column is a number and the value is a text that is none:
  // absence for equality, which is false.
  static Sides ordered(const FieldPredicate& predicate, const Column& column, std::string_view op,
                       std::string_view opposite, std::optional<bool> textIsMore) {
    const bool isEquality = !textIsMore.has_value();
    const auto value = predicate.value.value_or(isEquality ? Bind::text("") : Bind::int_(0));
    const auto* whole = std::get_if<std::int64_t>(&value.value());
    if (!column.isNumber) {
      const auto text = whole ? fmt::format("{}", *whole) : std::string(textOf(value));
      return column.compared(column.sql, op, opposite, sqlText(text));
    }
    const auto literal = whole ? sqlNumber(*whole) : numericLiteral(textOf(value));
    if (!literal) return constant(textIsMore.value_or(false));
    return column.compared(column.sql, op, opposite, *literal);
  }

  static Sides context(const ContextPredicate& predicate) {
    const auto key = sqlText(untilNul(predicate.key));
    const auto value = sqlText(untilNul(predicate.value));
    if (predicate.match == ContextMatch::substringScan) {
      return plain(fmt::format(
          "arrayExists((k, v) -> lower(k) = {} AND lower(v) = {}, ctx_keys, ctx_values)",
          sqlText(lowerAscii(untilNul(predicate.key))),
          sqlText(lowerAscii(untilNul(predicate.value)))));
    }
    // A JSON path cannot express such a key, so the store finds nothing.
    if (predicate.key.find('"') != std::string::npos) return undecided();
    const auto side = [&](std::string_view op) {
      return fmt::format("arrayExists((k, v) -> k = {} AND v {} {}, ctx_keys, ctx_values)", key, op,
                         value);
    };
    return {side("="), side("!=")};
  }

  Sides fullText(const FullTextTerm& term) const {
    const auto words = QueryParser::highlightTerms(QueryNode::fullText(term));
    if (words.empty()) return constant(true);
    return std::visit(overloaded{
                          [&](const FullTextMode::Fts&) { return match(words, term.matchCase); },
                          [&](const FullTextMode::SubstringScan&) {
                            return plain(containing(trimmed(term.raw, words)));
                          },
                          [](const FullTextMode::Regex&) { return constant(false); },
                      },
                      term.mode.value());
  }

  // From the first word to the last: what is around them is white space.
  static std::string_view trimmed(std::string_view raw, const std::vector<std::string>& words) {
    const auto begin = raw.find(words.front());
    const auto end = raw.rfind(words.back()) + words.back().size();
    return raw.substr(begin, end - begin);
  }

  static std::string containing(std::string_view text) {
    return fmt::format("position(lower(message), {}) > 0", sqlText(lowerAscii(untilNul(text))));
  }

  Sides match(const std::vector<std::string>& words, bool matchCase) const {
    std::string clause;
    const auto add = [&](const std::string& condition) {
      if (!clause.empty()) clause += " AND ";
      clause += condition;
    };
    for (const auto& word : words) {
      if (const auto condition = phrase(untilNul(word))) add(*condition);
    }
    if (clause.empty()) return constant(false);  // the index holds no punctuation
    if (matchCase) {
      for (const auto& word : words) {
        // SQLite finds the empty text everywhere.
        if (untilNul(word).empty()) continue;
        add(fmt::format("position(message, {}) > 0", sqlText(untilNul(word))));
      }
    }
    return plain('(' + clause + ')');
  }

  // Returns the condition for one typed word. The tokenizer may cut it into several words, which
  // must then stand side by side. Absent if the word holds no letter and no digit.
  std::optional<std::string> phrase(std::string_view word) const {
    const auto tokens = tokenizer_.words(word);
    if (tokens.empty()) return std::nullopt;
    const bool isPrefix = LogQuery::isPrefixWord(word);
    const auto last = sqlText(tokens.back().folded);
    if (tokens.size() == 1) {
      if (!isPrefix) return fmt::format("has(words, {})", last);
      return fmt::format("arrayExists(w -> startsWith(w, {}), words)", last);
    }
    std::string clause = "(";
    std::string text;
    for (std::size_t i = 0; i + 1 < tokens.size(); ++i) {
      clause += fmt::format("has(words, {}) AND ", sqlText(tokens[i].folded));
      text += ' ' + tokens[i].folded;
    }
    // Words hold no blank, so that the joined words contain the joined phrase only where its words
    // are. A lambda over neighbours would copy the whole array for each of its elements.
    text += ' ' + tokens.back().folded + (isPrefix ? "" : " ");
    return clause +
           fmt::format("position(concat(' ', arrayStringConcat(words, ' '), ' '), {}) > 0)",
                       sqlText(text));
  }

  const SourceDescriptor& descriptor_;
  const WordTokenizer& tokenizer_;
};

// Judges the records of each kind by its own fields. One clause is enough if the kinds agree.
std::string forAllKinds(const Question& question, const WordTokenizer& tokenizer) {
  const auto clauseFor = [&](std::string_view kind) {
    const auto& descriptor = descriptorOf(kind);
    return clauseOf(QueryParser::parse(question.text, descriptor, question.matchCase), descriptor,
                    tokenizer);
  };
  const auto others = clauseFor("");
  std::string known;
  std::string clauses;
  bool agree = true;
  for (const auto kind : kindIds()) {
    const auto clause = clauseFor(kind);
    agree = agree && clause == others;
    known += (known.empty() ? "" : ", ") + sqlText(kind);
    clauses += fmt::format("(kind = {} AND {}) OR ", sqlText(kind), clause);
  }
  return agree ? others : fmt::format("({}(kind NOT IN ({}) AND {}))", clauses, known, others);
}

std::string comparedTime(std::string_view op, std::string_view hourOp, std::int64_t microseconds) {
  return fmt::format("({} {} {} AND time {} {})", kHour, hourOp,
                     sqlNumber(microseconds / kMicrosecondsPerHour), op, sqlNumber(microseconds));
}

}  // namespace

std::string clauseOf(const LogQuery& query, const SourceDescriptor& descriptor,
                     const WordTokenizer& tokenizer) {
  return Compiler(descriptor, tokenizer).write(query.root, true);
}

std::string notBefore(std::int64_t microseconds) {
  return comparedTime(">=", ">=", microseconds);
}

std::string before(std::int64_t microseconds) {
  return comparedTime("<", "<=", microseconds);
}

std::string conditionOf(const Question& question, const WordTokenizer& tokenizer) {
  auto condition = forAllKinds(question, tokenizer);
  if (question.since) condition += " AND " + notBefore(*question.since);
  if (question.until) condition += " AND " + before(*question.until);
  if (question.after) condition += " AND seq > " + sqlNumber(*question.after);
  return condition;
}

}  // namespace fleet
