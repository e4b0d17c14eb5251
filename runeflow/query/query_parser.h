// The query language: turns the line a user types into a LogQuery, and lists the words that a
// viewer highlights.
//
// Words are searched in the message, `name:value` tests a field of the source, `ctx.key:value` the
// record's context map; AND, OR, NOT and parentheses combine them, double quotes keep a stretch
// together. Parsing never fails: what fits no rule is searched as text, a token that fits nowhere
// is skipped. Text is read by user-perceived characters, bytes that are not UTF-8 as U+FFFD.
//
// All functions are pure and may run on any thread; the deepest query that can be typed takes at
// most 2 MiB of its stack when built with optimisation. Time and memory follow the length of the
// text.
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
#include "runeflow/query/log_query.h"

namespace runeflow::QueryParser {

// How many ANDs, ORs and NOTs may lie above a condition in the tree of a typed query; parentheses
// alone add none. A NOT or a group that would lie deeper is skipped, with what stands in it.
inline constexpr std::size_t maxDepth = 2'000;

class Tok {
 public:
  struct Word {
    std::string text;
    bool operator==(const Word&) const = default;
  };
  struct Lparen {
    bool operator==(const Lparen&) const = default;
  };
  struct Rparen {
    bool operator==(const Rparen&) const = default;
  };
  struct And {
    bool operator==(const And&) const = default;
  };
  struct Or {
    bool operator==(const Or&) const = default;
  };
  struct Not {
    bool operator==(const Not&) const = default;
  };
  using Value = std::variant<Word, Lparen, Rparen, And, Or, Not>;

  static Tok word(std::string text) { return Tok(Word{std::move(text)}); }
  static Tok lparen() { return Tok(Lparen{}); }
  static Tok rparen() { return Tok(Rparen{}); }
  static Tok and_() { return Tok(And{}); }
  static Tok or_() { return Tok(Or{}); }
  static Tok not_() { return Tok(Not{}); }

  const Value& value() const { return value_; }
  bool operator==(const Tok&) const = default;

 private:
  explicit Tok(Value value) : value_(std::move(value)) {}
  Value value_;
};

enum class Combinator { and_, or_ };

// `matchCase` goes into every full-text term. The root is `all` when nothing usable was typed.
LogQuery parse(std::string_view text, const SourceDescriptor& descriptor, bool matchCase);

std::vector<Tok> lex(std::string_view text);

// The words of all full-text terms in order, negated and repeated ones too.
std::vector<std::string> highlightTerms(const QueryNode& node);

// Absent for no node, the node itself for one, else `and` or `or` over the list.
std::optional<QueryNode> reduce(std::vector<QueryNode> nodes, Combinator combinator);

// The list with every run of neighbouring `fts` terms made one term, its words joined by blanks.
// The new terms take `matchCase`, whatever the old ones had.
std::vector<QueryNode> coalesceFullText(std::vector<QueryNode> nodes, bool matchCase);

// The condition that one word stands for: on the context map, else on a field, else full text.
QueryNode leaf(std::string_view word, const SourceDescriptor& descriptor, bool matchCase);

// Of a `ctx.key:value` word; absent for any other and when key or value is empty.
std::optional<ContextPredicate> contextPredicate(std::string_view word);

// Of a `name:value` word; absent when the name is not that of a queryable field, the value is empty
// or, for the level, no level's name, and for the timestamp always.
std::optional<FieldPredicate> fieldPredicate(std::string_view word,
                                             const SourceDescriptor& descriptor);

// The raw value of a RuneflowLogLevel by its name or short name, in any case.
std::optional<std::int64_t> levelValue(std::string_view text);

}  // namespace runeflow::QueryParser
