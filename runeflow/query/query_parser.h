// SPDX-License-Identifier: MIT
/// \file
/// The query language: parse() turns the line that a user types into a LogQuery, and
/// highlightTerms() lists the words that a viewer highlights.
///
///     const auto query = QueryParser::parse("level:warn \"disk full\" NOT tag:Net",
///                                           SourceDescriptor::logcat(), false);
///     const auto words = QueryParser::highlightTerms(query.root);  // "disk", "full"
///
/// A plain word searches the message, `name:value` tests a field of the source, and `ctx.key:value`
/// tests the record's context map. AND, OR, NOT and parentheses combine these conditions. Between
/// two double quotes, blanks, parentheses and keywords are ordinary text, but a colon keeps its
/// meaning. Parsing never fails. A word that is not a condition on a field or on the context map is
/// searched as text. An operator or parenthesis without its counterpart is skipped.
/// docs/query-language.md describes the language for users.
///
/// The text is read by user-perceived characters (Unicode extended grapheme clusters). parse() and
/// lex() read bytes that are not UTF-8 as U+FFFD. leaf(), contextPredicate() and fieldPredicate()
/// expect valid UTF-8 and copy other bytes unchanged into the condition.
///
/// All functions are pure and may run on any thread. The deepest query that can be typed takes at
/// most 2 MiB of stack in an optimised build. Time and memory are proportional to the length of the
/// text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "runeflow/model/source_descriptor.h"
#include "runeflow/platform/api.h"
#include "runeflow/query/log_query.h"

/// \namespace runeflow::QueryParser
/// The query language and the steps of its parser.
namespace runeflow::QueryParser {

/// Returns the query that `text` stands for. `descriptor` names the fields of the source, and
/// `matchCase` applies to every full-text term. The root is `all` if `text` contains no condition.
RUNEFLOW_EXPORT LogQuery parse(std::string_view text, const SourceDescriptor& descriptor,
                               bool matchCase);

/// Returns the words of all full-text terms in order. Negated and repeated words are included.
RUNEFLOW_EXPORT std::vector<std::string> highlightTerms(const QueryNode& node);

/// The largest depth of a tree that parse() returns. The depth of a condition is the number of
/// ANDs, ORs and NOTs above it; parentheses alone do not count.
///
/// parse() skips a NOT or a group, with everything in it, if one of its conditions would lie deeper
/// than maxDepth - 3. The depth includes the AND and the OR that join the group to the conditions
/// before it, even if the words on both sides of the AND later merge into one term. The remaining
/// three levels are reserved for an AND, an OR and, after a stray closing parenthesis, another AND
/// that the rest of the text may add above.
inline constexpr std::size_t maxDepth = 2'000;

/// Returns the condition that one word stands for: the result of contextPredicate(), else that of
/// fieldPredicate(), else a full-text term of the whole word.
RUNEFLOW_EXPORT QueryNode leaf(std::string_view word, const SourceDescriptor& descriptor,
                               bool matchCase);

/// Returns the condition of a `ctx.key:value` word. The value is everything after the first colon.
/// Returns nothing for any other word, or if the key or the value is empty.
RUNEFLOW_EXPORT std::optional<ContextPredicate> contextPredicate(std::string_view word);

/// Returns the condition of a `name:value` word. The value is everything after the first colon.
///
/// Returns nothing if `name` is not a queryable field of `descriptor`, if the value is empty, if
/// the field is the level and the value is not the name of a level, or if the field is the
/// timestamp.
RUNEFLOW_EXPORT std::optional<FieldPredicate> fieldPredicate(std::string_view word,
                                                             const SourceDescriptor& descriptor);

/// Returns the raw value of the RuneflowLogLevel that `text` names, in upper or lower case:
/// "trace", "debug", "info", "warning", "warn", "error", "err", "fatal", "fault" or "critical".
/// Returns nothing for any other text.
RUNEFLOW_EXPORT std::optional<std::int64_t> levelValue(std::string_view text);

/// A token of the query language.
class Tok {
 public:
  /// A word, without the double quotes that were typed around it or in it.
  struct Word {
    std::string text;  ///< The characters of the word; never empty in the result of lex().
    bool operator==(const Word&) const = default;
  };
  /// An opening parenthesis.
  struct Lparen {
    bool operator==(const Lparen&) const = default;
  };
  /// A closing parenthesis.
  struct Rparen {
    bool operator==(const Rparen&) const = default;
  };
  /// The keyword AND.
  struct And {
    bool operator==(const And&) const = default;
  };
  /// The keyword OR.
  struct Or {
    bool operator==(const Or&) const = default;
  };
  /// The keyword NOT.
  struct Not {
    bool operator==(const Not&) const = default;
  };
  /// The alternatives.
  using Value = std::variant<Word, Lparen, Rparen, And, Or, Not>;

  static Tok word(std::string text) { return Tok(Word{std::move(text)}); }  ///< See Word.
  static Tok lparen() { return Tok(Lparen{}); }                             ///< See Lparen.
  static Tok rparen() { return Tok(Rparen{}); }                             ///< See Rparen.
  static Tok and_() { return Tok(And{}); }                                  ///< See And.
  static Tok or_() { return Tok(Or{}); }                                    ///< See Or.
  static Tok not_() { return Tok(Not{}); }                                  ///< See Not.

  const Value& value() const { return value_; }  ///< The alternative that this token holds.
  bool operator==(const Tok&) const = default;

 private:
  explicit Tok(Value value) : value_(std::move(value)) {}
  Value value_;
};

/// Cuts `text` into tokens. AND, OR and NOT are keywords only in upper case and without quotes.
RUNEFLOW_EXPORT std::vector<Tok> lex(std::string_view text);

/// Returns `nodes` with every run of neighbouring `fts` terms merged into one term, whose text is
/// their texts joined by blanks. The merged terms take `matchCase`, whatever the old terms had.
RUNEFLOW_EXPORT std::vector<QueryNode> coalesceFullText(std::vector<QueryNode> nodes,
                                                        bool matchCase);

/// The operator that joins a list of nodes.
enum class Combinator {
  and_,  ///< All nodes must match.
  or_    ///< At least one node must match.
};

/// Returns `nodes` joined by `combinator`. Returns a single node unchanged, and nothing if the list
/// is empty.
RUNEFLOW_EXPORT std::optional<QueryNode> reduce(std::vector<QueryNode> nodes,
                                                Combinator combinator);

}  // namespace runeflow::QueryParser
