/// \file
/// A LogQuery says which stored records to keep: a tree of conditions on columns, on keys of the
/// context map and on the message, joined by AND, OR and NOT.
///
///     const LogQuery query{QueryNode::and_(
///         {QueryNode::field({StoreColumn::level(), FieldOp::greaterOrEqual, Bind::int_(4)}),
///          QueryNode::fullText({"disk full"})})};
///     const auto seqs = store.matchingSeqs(query, 0);
///
/// QueryParser builds a query from typed text. A host (the program that uses the library) may also
/// build one by hand. EventStore compiles the query into SQL. User text reaches SQLite only in
/// bound parameters, never as part of the SQL text. All types are plain values. All operations are
/// pure and may run on any thread.
///
/// Every operation on a tree is recursive, its destruction too. In an optimised build a level of
/// the tree takes about 300 bytes of stack, and 10,000 levels fit into the 8 MiB stack of a main
/// thread.
///
/// SQLite refuses trees that are much smaller. The largest numbers that release 3.40 (Debian 12)
/// takes, whatever the conditions and the read are:
///  - 993 children of one AND or OR; each word of a full-text term with `matchCase` is a child;
///  - 39 NOTs inside one another;
///  - 26 ANDs and ORs inside one another, if each is the last child of the next outer one;
///  - 76 ANDs and ORs inside one another, if each is the first child of the next outer one;
///  - 15 ANDs and ORs inside one another, if each is the last child and negated.
///
/// Releases whose SQL parser has no fixed stack take deeper nesting. Larger queries compile, but
/// SQLite fails to prepare their clause.
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
  /// Evaluates json_extract(). A JSON path cannot express a key that contains a double quote: no
  /// record matches, and SQLite 3.40 fails the read at a record that has the part of the key before
  /// the quote as a key.
  json,
  /// Scans the JSON text with LIKE, which ignores the case of ASCII letters. Finds every key.
  substringScan
};

/// The context map holds `key` with exactly `value`.
struct ContextPredicate {
  std::string key;                          ///< The key, case included.
  std::string value;                        ///< The whole value.
  ContextMatch match = ContextMatch::json;  ///< The method of the search.
  bool operator==(const ContextPredicate&) const = default;
};

/// How a FullTextTerm searches the message.
class FullTextMode {
 public:
  /// Searches the full-text index. The message contains all words, in any order; see ftsMatch().
  struct Fts {
    bool operator==(const Fts&) const = default;
  };
  /// Scans the messages with LIKE, which ignores the case of ASCII letters. The message contains
  /// the whole text, without the white space at its ends, in one piece.
  struct SubstringScan {
    bool operator==(const SubstringScan&) const = default;
  };
  /// A regular expression for the host. The library does not evaluate it, and the term matches no
  /// record.
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
  bool matchCase = false;  ///< The message also contains each word as typed; only for `fts`.
  bool operator==(const FullTextTerm&) const = default;
};

/// One node of the tree: a condition, a combination of nodes, or `all`.
///
/// Children are immutable and shared between copies. Copying a tree is therefore cheap, whatever
/// its size. A moved-from node may only be assigned to or destroyed.
class QueryNode {
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
  /// All children match. A list without children matches every record.
  struct And {
    Children children;  ///< The nodes that AND joins.
    bool operator==(const And&) const = default;
  };
  /// At least one child matches. A list without children matches every record.
  struct Or {
    Children children;  ///< The nodes that OR joins.
    bool operator==(const Or&) const = default;
  };
  /// The child does not match.
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
struct LogQuery {
  /// The SQL text of a query and the values of its parameters.
  struct Compiled {
    std::string clause;       ///< A boolean SQL expression over the table `events`.
    std::vector<Bind> binds;  ///< The i-th "?" of the clause takes the i-th bind.
    bool operator==(const Compiled&) const = default;
  };

  QueryNode root = QueryNode::all();  ///< The tree. By default the query matches every record.

  /// Returns the query as SQL. Every tree compiles. A caller that puts parameters of its own in
  /// front of the clause binds these first.
  Compiled compile() const;

  /// Returns the query for an SQLite without FTS5: full-text terms of mode `fts` become LIKE scans
  /// of the message.
  LogQuery withFullTextAsSubstringScan() const;

  /// Returns the query for an SQLite without the JSON functions: context conditions become LIKE
  /// scans of `ctx`.
  LogQuery withContextAsSubstringScan() const;

  /// Returns whether the root is `all`. Other trees that match every record are not empty.
  bool isEmpty() const;

  /// Escapes `text` for a LIKE pattern whose escape character is the backslash.
  static std::string escapeLike(std::string_view text);

  /// Returns the FTS5 MATCH expression that finds all words of `text`. Each word, a piece between
  /// white-space characters, is a phrase. It is a prefix phrase if isPrefixWord() holds. The result
  /// is empty if there is no word.
  static std::string ftsMatch(std::string_view text);

  /// The number of user-perceived characters from which on a word also finds longer words that
  /// begin with it.
  static constexpr std::size_t prefixCharacters = 3;

  /// Returns whether `word` has at least `prefixCharacters` user-perceived characters (Unicode
  /// extended grapheme clusters).
  static bool isPrefixWord(std::string_view word);

  bool operator==(const LogQuery&) const = default;
};

}  // namespace runeflow
