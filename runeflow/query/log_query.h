// SPDX-License-Identifier: MIT
/// \file
/// A LogQuery selects stored records. It is a tree of conditions on columns, on the context map and
/// on the message, joined by AND, OR and NOT.
///
///     const LogQuery query{QueryNode::and_(
///         {QueryNode::field({StoreColumn::level(), FieldOp::greaterOrEqual, Bind::int_(4)}),
///          QueryNode::fullText({"disk full"})})};
///     const auto seqs = store.matchingSeqs(query, 0);
///
/// QueryParser builds a query from typed text. A host (the program that uses the library) may also
/// build the tree itself, as above. EventStore compiles the query to SQL. User text reaches SQLite
/// only in bound parameters, never as part of the SQL text. All types are plain values. All
/// operations are pure and may run on any thread.
///
/// Every operation on a tree is recursive, including its destruction. In an optimised build each
/// level of the tree takes about 300 bytes of stack; 10,000 levels fit into the 8 MiB stack of a
/// main thread.
///
/// SQLite refuses much smaller trees. Release 3.40 (Debian 12) accepts, for every kind of condition
/// and every function of EventStore that reads, at most:
///  - 993 children of one AND or OR; each word of a full-text term with `matchCase` is a child;
///  - 39 nested NOTs;
///  - 26 nested ANDs and ORs, if each is the last child of the next outer one;
///  - 76 nested ANDs and ORs, if each is the first child of the next outer one;
///  - 15 nested ANDs and ORs, if each is negated and the last child of the next outer one.
///
/// SQLite releases whose SQL parser has no fixed stack accept deeper nesting. compile() also
/// accepts larger trees, but SQLite cannot prepare the result.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "runeflow/model/source_descriptor.h"
#include "runeflow/platform/api.h"

namespace runeflow {

/// A value for one SQL parameter: a UTF-8 text or a 64-bit integer.
class Bind {
 public:
  /// The alternatives.
  using Value = std::variant<std::string, std::int64_t>;

  static Bind text(std::string text) { return Bind(std::move(text)); }  ///< A text.
  static Bind int_(std::int64_t number) { return Bind(number); }        ///< An integer.

  const Value& value() const { return value_; }  ///< The text or the integer.
  bool operator==(const Bind&) const = default;

 private:
  explicit Bind(Value value) : value_(std::move(value)) {}
  Value value_;
};

/// How a FieldPredicate compares its column with its value.
///
/// A column without a value (SQL NULL) satisfies only `isNullOrEmpty`. It does not satisfy the
/// negation of any other condition either.
enum class FieldOp {
  equals,          ///< Equal; texts byte by byte.
  notEquals,       ///< Not equal; texts byte by byte.
  contains,        ///< The column contains the text; LIKE, which ignores the case of ASCII letters.
  prefix,          ///< The column begins with the text; ASCII case is ignored.
  notPrefix,       ///< The column does not begin with the text; ASCII case is ignored.
  greaterOrEqual,  ///< The column is at least the value.
  lessOrEqual,     ///< The column is at most the value.
  isNullOrEmpty    ///< The column is NULL or the empty text.
};

/// A condition on one column of the store.
struct FieldPredicate {
  StoreColumn column;  ///< The column to test.
  FieldOp op;          ///< The comparison.
  /// The right side. An absent value stands for the empty text, and for 0 with `greaterOrEqual` and
  /// `lessOrEqual`. `contains`, `prefix` and `notPrefix` read an integer as the empty text, which
  /// every text contains and begins with. `isNullOrEmpty` ignores the value.
  std::optional<Bind> value = std::nullopt;
  bool operator==(const FieldPredicate&) const = default;
};

/// How a ContextPredicate searches the `ctx` column, which holds the context map as a JSON object.
enum class ContextMatch {
  /// Evaluates json_extract(). Key and value are compared byte by byte. A JSON path cannot express
  /// a key that contains a double quote. A condition on such a key matches no record. With SQLite
  /// 3.40, the whole read fails if it meets a record whose map contains the part of the key before
  /// the quote as a key.
  json,
  /// Scans the JSON text with LIKE, which ignores the case of ASCII letters. Can find every key.
  substringScan
};

/// A condition on the context map: the map contains `key`, and its value is `value`.
struct ContextPredicate {
  std::string key;                          ///< The whole key.
  std::string value;                        ///< The whole value.
  ContextMatch match = ContextMatch::json;  ///< The method of the search.
  bool operator==(const ContextPredicate&) const = default;
};

/// How a FullTextTerm searches the message.
class FullTextMode {
 public:
  /// Searches the full-text index. The message must contain all words, in any order; see
  /// LogQuery::ftsMatch().
  struct Fts {
    bool operator==(const Fts&) const = default;
  };
  /// Scans the messages with LIKE, which ignores the case of ASCII letters. The message must
  /// contain the whole text, except the white space at its ends, in one piece.
  struct SubstringScan {
    bool operator==(const SubstringScan&) const = default;
  };
  /// A regular expression that the host evaluates itself. The library does not evaluate it; in the
  /// store the term matches no record.
  struct Regex {
    std::string pattern;  ///< The expression, in whatever syntax the host uses.
    bool operator==(const Regex&) const = default;
  };
  /// The alternatives.
  using Value = std::variant<Fts, SubstringScan, Regex>;

  /// See Fts.
  static FullTextMode fts() { return FullTextMode(Fts{}); }
  /// See SubstringScan.
  static FullTextMode substringScan() { return FullTextMode(SubstringScan{}); }
  /// See Regex.
  static FullTextMode regex(std::string pattern) { return FullTextMode(Regex{std::move(pattern)}); }

  const Value& value() const { return value_; }  ///< The alternative that this mode holds.
  bool operator==(const FullTextMode&) const = default;

 private:
  explicit FullTextMode(Value value) : value_(std::move(value)) {}
  Value value_;
};

/// Words to find in the message.
struct FullTextTerm {
  std::string raw;  ///< The text as typed. A text of white space alone matches every record.
  FullTextMode mode = FullTextMode::fts();  ///< The method of the search.
  bool matchCase = false;  ///< The message must also contain each word as typed; only for `fts`.
  bool operator==(const FullTextTerm&) const = default;
};

/// One node of the tree: a condition, a combination of nodes, or `all`.
///
/// Children are immutable and shared between copies. Copying a tree is therefore cheap, whatever
/// its size. A moved-from node may only be assigned to or destroyed.
class RUNEFLOW_EXPORT QueryNode {
 public:
  /// An immutable list of nodes, which copies share.
  class Children {
   public:
    /// Takes the nodes in their order.
    explicit Children(std::vector<QueryNode> nodes);
    const std::vector<QueryNode>& nodes() const { return *nodes_; }  ///< The nodes in order.
    bool operator==(const Children& other) const;

   private:
    std::shared_ptr<const std::vector<QueryNode>> nodes_;
  };
  /// Matches if all children match. Without children it matches every record.
  struct And {
    Children children;  ///< The nodes that AND joins.
    bool operator==(const And&) const = default;
  };
  /// Matches if at least one child matches. Without children it matches every record.
  struct Or {
    Children children;  ///< The nodes that OR joins.
    bool operator==(const Or&) const = default;
  };
  /// Matches if the child does not match. See FieldOp for columns without a value.
  struct Not {
    Children child;  ///< A list of exactly one node.
    bool operator==(const Not&) const = default;
  };
  /// Matches every record.
  struct All {
    bool operator==(const All&) const = default;
  };
  /// The alternatives.
  using Value = std::variant<FieldPredicate, ContextPredicate, FullTextTerm, And, Or, Not, All>;

  static QueryNode field(FieldPredicate predicate);        ///< A condition on a column.
  static QueryNode context(ContextPredicate predicate);    ///< A condition on the context map.
  static QueryNode fullText(FullTextTerm term);            ///< A condition on the message.
  static QueryNode and_(std::vector<QueryNode> children);  ///< See And.
  static QueryNode or_(std::vector<QueryNode> children);   ///< See Or.
  static QueryNode not_(QueryNode child);                  ///< See Not.
  static QueryNode all();                                  ///< See All.

  /// The alternative that this node holds.
  const Value& value() const& { return value_; }
  /// Moves the alternative out of the node.
  Value value() && { return std::move(value_); }

  /// Returns the children in order, and an empty span for a condition and for `all`. The span is
  /// valid while this node or a copy of it exists.
  std::span<const QueryNode> children() const;

  bool operator==(const QueryNode& other) const { return value_ == other.value_; }

 private:
  explicit QueryNode(Value value) : value_(std::move(value)) {}
  Value value_;
};

/// A query: the tree of its conditions.
struct RUNEFLOW_EXPORT LogQuery {
  /// The SQL text of a query and the values of its parameters.
  struct Compiled {
    std::string clause;       ///< A boolean SQL expression over the table `events`.
    std::vector<Bind> binds;  ///< The i-th "?" of the clause takes the i-th bind.
    bool operator==(const Compiled&) const = default;
  };

  QueryNode root = QueryNode::all();  ///< The tree. By default the query matches every record.

  /// Returns the query as SQL. Every tree compiles. If the caller's statement has parameters before
  /// the clause, the caller must bind those first.
  Compiled compile() const;

  /// Returns the query for an SQLite without FTS5: full-text terms of mode `fts` become LIKE scans
  /// of the message.
  LogQuery withFullTextAsSubstringScan() const;

  /// Returns the query for an SQLite without the JSON functions: context conditions become LIKE
  /// scans of `ctx`.
  LogQuery withContextAsSubstringScan() const;

  /// Returns true if the root is `all`. Other trees do not count as empty, even if they match every
  /// record.
  bool isEmpty() const;

  /// Escapes `text` for a LIKE pattern whose escape character is the backslash.
  static std::string escapeLike(std::string_view text);

  /// Returns the FTS5 MATCH expression that finds all words of `text`. A word is a piece between
  /// white-space characters. Each word becomes a phrase, or a prefix phrase if isPrefixWord()
  /// returns true for it. The result is empty if `text` contains no word.
  static std::string ftsMatch(std::string_view text);

  /// The shortest length of a word that also finds longer words which begin with it, in
  /// user-perceived characters (Unicode extended grapheme clusters).
  static constexpr std::size_t prefixCharacters = 3;

  /// Returns true if `word` has at least `prefixCharacters` user-perceived characters.
  static bool isPrefixWord(std::string_view word);

  bool operator==(const LogQuery&) const = default;
};

}  // namespace runeflow
