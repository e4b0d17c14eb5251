// Which stored records to keep, as a value: a tree of conditions on columns, on keys of the context
// map and on the message, joined by AND, OR and NOT.
//
// QueryParser builds one from typed text, a host may build one by hand; the store's reads compile
// it into SQL. User text reaches SQLite only in binds, never in the clause. All types are plain
// values, all operations are pure and may run on any thread.
//
// A level of a tree costs every operation, destruction too, some 300 bytes of stack when built with
// optimisation: 10,000 levels hold in the 8 MiB of a main thread. SQLite is stricter: it refuses
// about 1,000 conditions in one list, and releases whose SQL parser has a fixed stack (3.40 is one)
// some 30 nested levels. Such a query compiles all the same; preparing its clause fails.
#pragma once

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

// A value for one SQL parameter.
class Bind {
 public:
  using Value = std::variant<std::string, std::int64_t>;

  static Bind text(std::string text) { return Bind(std::move(text)); }
  static Bind int_(std::int64_t number) { return Bind(number); }

  const Value& value() const { return value_; }
  bool operator==(const Bind&) const = default;

 private:
  explicit Bind(Value value) : value_(std::move(value)) {}
  Value value_;
};

enum class FieldOp {
  equals,
  notEquals,
  contains,
  prefix,
  notPrefix,
  greaterOrEqual,
  lessOrEqual,
  isNullOrEmpty
};

// A condition on one store column.
struct FieldPredicate {
  StoreColumn column;
  FieldOp op;
  std::optional<Bind> value = std::nullopt;
  bool operator==(const FieldPredicate&) const = default;
};

enum class ContextMatch {
  json,          // json_extract on `ctx`
  substringScan  // LIKE over the stored JSON text
};

// The context map holds `key` with exactly `value`.
struct ContextPredicate {
  std::string key;
  std::string value;
  ContextMatch match = ContextMatch::json;
  bool operator==(const ContextPredicate&) const = default;
};

class FullTextMode {
 public:
  struct Fts {
    bool operator==(const Fts&) const = default;
  };
  struct SubstringScan {
    bool operator==(const SubstringScan&) const = default;
  };
  struct Regex {
    std::string pattern;
    bool operator==(const Regex&) const = default;
  };
  using Value = std::variant<Fts, SubstringScan, Regex>;

  static FullTextMode fts() { return FullTextMode(Fts{}); }
  static FullTextMode substringScan() { return FullTextMode(SubstringScan{}); }
  // Carried for the host; a term of this mode matches no record.
  static FullTextMode regex(std::string pattern) { return FullTextMode(Regex{std::move(pattern)}); }

  const Value& value() const { return value_; }
  bool operator==(const FullTextMode&) const = default;

 private:
  explicit FullTextMode(Value value) : value_(std::move(value)) {}
  Value value_;
};

// Words to find in the message.
struct FullTextTerm {
  std::string raw;  // as typed; only white space counts as empty, which matches everything
  FullTextMode mode = FullTextMode::fts();
  bool matchCase = false;
  bool operator==(const FullTextTerm&) const = default;
};

// One node of the tree. Children are immutable and shared between copies, so copying a tree is
// cheap however large it is. A moved-from node may only be assigned to or destroyed.
class QueryNode {
 public:
  class Children {
   public:
    explicit Children(std::vector<QueryNode> nodes);
    const std::vector<QueryNode>& nodes() const { return *nodes_; }
    bool operator==(const Children& other) const;

   private:
    std::shared_ptr<const std::vector<QueryNode>> nodes_;
  };
  struct And {
    Children children;
    bool operator==(const And&) const = default;
  };
  struct Or {
    Children children;
    bool operator==(const Or&) const = default;
  };
  struct Not {
    Children child;  // exactly one
    bool operator==(const Not&) const = default;
  };
  struct All {
    bool operator==(const All&) const = default;
  };
  using Value = std::variant<FieldPredicate, ContextPredicate, FullTextTerm, And, Or, Not, All>;

  static QueryNode field(FieldPredicate predicate);
  static QueryNode context(ContextPredicate predicate);
  static QueryNode fullText(FullTextTerm term);
  static QueryNode and_(std::vector<QueryNode> children);
  static QueryNode or_(std::vector<QueryNode> children);
  static QueryNode not_(QueryNode child);
  static QueryNode all();

  const Value& value() const& { return value_; }
  Value value() && { return std::move(value_); }

  // In order; empty for the leaves. Valid as long as this node or a copy of it.
  std::span<const QueryNode> children() const;

  bool operator==(const QueryNode& other) const { return value_ == other.value_; }

 private:
  explicit QueryNode(Value value) : value_(std::move(value)) {}
  Value value_;
};

struct LogQuery {
  struct Compiled {
    std::string clause;       // a boolean SQL expression over `events`
    std::vector<Bind> binds;  // the i-th "?" of the clause takes the i-th bind
    bool operator==(const Compiled&) const = default;
  };

  QueryNode root = QueryNode::all();

  Compiled compile() const;

  // For an SQLite without FTS5: full-text terms of mode `fts` become LIKE scans of the message.
  LogQuery withFullTextAsSubstringScan() const;

  // For an SQLite without the JSON functions: context conditions become LIKE scans of `ctx`.
  LogQuery withContextAsSubstringScan() const;

  // True exactly when the root is `all`.
  bool isEmpty() const;

  // Escapes a text for a LIKE pattern with the escape character backslash.
  static std::string escapeLike(std::string_view text);

  // Turns free text into an FTS5 MATCH expression: every word a phrase, a prefix one from three
  // user-perceived characters on. Empty when there is no word.
  static std::string ftsMatch(std::string_view text);

  bool operator==(const LogQuery&) const = default;
};

}  // namespace runeflow
