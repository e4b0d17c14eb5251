// SPDX-License-Identifier: MIT
#include "runeflow/query/log_query.h"

#include <memory>

#include "runeflow/model/json_text_p.h"
#include "runeflow/platform/overloaded_p.h"
#include "runeflow/platform/unicode_p.h"
#include "runeflow/query/judging_clause_p.h"

namespace runeflow {
namespace {

// SQLite ends a bound text at its first NUL character. A pattern is therefore built from the text
// before the NUL, so that the characters that it adds after the text are kept.
std::string_view untilNul(std::string_view text) {
  return text.substr(0, text.find('\0'));
}

std::string quotedForFts(std::string_view text) {
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"') quoted += '"';
    quoted += c;
  }
  return quoted + '"';
}

std::string ftsExpression(std::span<const std::string_view> words) {
  std::string expression;
  for (const auto typed : words) {
    const auto word = untilNul(typed);
    if (!expression.empty()) expression += ' ';
    expression += quotedForFts(word);
    if (LogQuery::isPrefixWord(word)) expression += '*';
  }
  return expression;
}

// json_extract() compares the key in a path with the key in the stored JSON text, without decoding
// escapes. The path therefore contains the same escape sequences as the stored text. A key with a
// double quote cannot be expressed: SQLite ends the key at the first double quote, even if it is
// doubled.
std::string jsonPath(std::string_view key) {
  std::string path = "$.\"";
  for (const char& c : key) path += c == '"' ? "\"\"" : escapeJson({&c, 1});
  return path + '"';
}

std::string containing(std::string_view text) {
  return '%' + LogQuery::escapeLike(untilNul(text)) + '%';
}

std::string beginningWith(std::string_view text) {
  return LogQuery::escapeLike(untilNul(text)) + '%';
}

std::string_view textOf(const std::optional<Bind>& value) {
  const auto* text = value ? std::get_if<std::string>(&value->value()) : nullptr;
  return text ? std::string_view(*text) : std::string_view{};
}

// Writes the clause from left to right. condition() writes every piece that contains a "?", which
// keeps placeholders and binds in the same order.
class Compiler {
 public:
  // `wordsCondition` is the SQL for a full-text condition, with a "?" for the MATCH expression.
  explicit Compiler(std::string_view wordsCondition) : wordsCondition_(wordsCondition) {}

  void write(const QueryNode& node) {
    const auto children = node.children();
    if (children.empty()) return writeLeaf(node);
    const bool isNot = std::holds_alternative<QueryNode::Not>(node.value());
    if (children.size() == 1 && !isNot) return write(children.front());
    const bool isOr = std::holds_alternative<QueryNode::Or>(node.value());
    std::string_view before = isNot ? "NOT (" : "(";
    for (const auto& child : children) {
      compiled_.clause += std::exchange(before, isOr ? " OR " : " AND ");
      write(child);
    }
    compiled_.clause += ')';
  }

  LogQuery::Compiled take() && { return std::move(compiled_); }

 private:
  // Writes a node without children; an empty list matches every record. The function is not inlined
  // into write(), because each level of the tree takes another stack frame of write().
  [[gnu::noinline]] void writeLeaf(const QueryNode& node) {
    std::visit(overloaded{
                   [&](const FieldPredicate& predicate) { field(predicate); },
                   [&](const ContextPredicate& predicate) { context(predicate); },
                   [&](const FullTextTerm& term) { fullText(term); },
                   [&](const auto&) { compiled_.clause += '1'; },
               },
               node.value());
  }

  void condition(std::string_view sql, Bind bind) {
    compiled_.clause += sql;
    compiled_.binds.push_back(std::move(bind));
  }

  void field(const FieldPredicate& predicate) {
    const std::string column = predicate.column.sql();
    const auto compare = [&](std::string_view sql, Bind ifAbsent) {
      condition(column + std::string(sql), predicate.value.value_or(std::move(ifAbsent)));
    };
    const auto like = [&](std::string_view sql, std::string pattern) {
      condition(column + std::string(sql), Bind::text(std::move(pattern)));
    };
    const std::string_view text = textOf(predicate.value);
    switch (predicate.op) {
      case FieldOp::equals:
        return compare(" = ?", Bind::text(""));
      case FieldOp::notEquals:
        return compare(" <> ?", Bind::text(""));
      case FieldOp::contains:
        return like(R"( LIKE ? ESCAPE '\')", containing(text));
      case FieldOp::prefix:
        return like(R"( LIKE ? ESCAPE '\')", beginningWith(text));
      case FieldOp::notPrefix:
        return like(R"( NOT LIKE ? ESCAPE '\')", beginningWith(text));
      case FieldOp::greaterOrEqual:
        return compare(" >= ?", Bind::int_(0));
      case FieldOp::lessOrEqual:
        return compare(" <= ?", Bind::int_(0));
      case FieldOp::isNullOrEmpty:
        compiled_.clause += '(' + column + " IS NULL OR " + column + " = '')";
    }
  }

  void context(const ContextPredicate& predicate) {
    if (predicate.match == ContextMatch::substringScan) {
      condition(R"((ctx IS NOT NULL AND ctx LIKE ? ESCAPE '\'))",
                Bind::text(containing(jsonMember(predicate.key, predicate.value))));
      return;
    }
    condition("json_extract(ctx, ?)", Bind::text(jsonPath(predicate.key)));
    condition(" = ?", Bind::text(predicate.value));
  }

  void fullText(const FullTextTerm& term) {
    const auto text = unicode::trimWhiteSpace(term.raw);
    if (text.empty()) {
      compiled_.clause += '1';
      return;
    }
    std::visit(overloaded{
                   [&](const FullTextMode::Fts&) { match(text, term.matchCase); },
                   [&](const FullTextMode::SubstringScan&) {
                     condition(R"(message LIKE ? ESCAPE '\')", Bind::text(containing(text)));
                   },
                   [&](const FullTextMode::Regex&) { compiled_.clause += '0'; },
               },
               term.mode.value());
  }

  // The index ignores case. It finds the candidates, and instr() keeps the records whose message
  // contains each word in its exact case.
  void match(std::string_view text, bool matchCase) {
    const auto words = unicode::words(text);
    if (matchCase) compiled_.clause += '(';
    condition(wordsCondition_, Bind::text(ftsExpression(words)));
    if (!matchCase) return;
    for (const auto word : words) {
      condition(" AND instr(message, ?) > 0", Bind::text(std::string(word)));
    }
    compiled_.clause += ')';
  }

  std::string_view wordsCondition_;
  LogQuery::Compiled compiled_;
};

LogQuery::Compiled compiled(const QueryNode& root, std::string_view wordsCondition) {
  Compiler compiler(wordsCondition);
  compiler.write(root);
  return std::move(compiler).take();
}

QueryNode withChildren(const QueryNode& node, std::vector<QueryNode> children) {
  if (std::holds_alternative<QueryNode::And>(node.value())) {
    return QueryNode::and_(std::move(children));
  }
  if (std::holds_alternative<QueryNode::Or>(node.value())) {
    return QueryNode::or_(std::move(children));
  }
  return QueryNode::not_(std::move(children.front()));
}

// Returns the tree with every node that has no children replaced by the result of `rewriteLeaf`.
QueryNode rewritten(const QueryNode& node, QueryNode (*rewriteLeaf)(const QueryNode&)) {
  if (node.children().empty()) return rewriteLeaf(node);
  std::vector<QueryNode> children;
  children.reserve(node.children().size());
  for (const auto& child : node.children()) children.push_back(rewritten(child, rewriteLeaf));
  return withChildren(node, std::move(children));
}

}  // namespace

QueryNode::Children::Children(std::vector<QueryNode> nodes)
    : nodes_(std::make_shared<const std::vector<QueryNode>>(std::move(nodes))) {}

bool QueryNode::Children::operator==(const Children& other) const {
  return nodes_ == other.nodes_ || *nodes_ == *other.nodes_;
}

QueryNode QueryNode::field(FieldPredicate predicate) {
  return QueryNode(std::move(predicate));
}

QueryNode QueryNode::context(ContextPredicate predicate) {
  return QueryNode(std::move(predicate));
}

QueryNode QueryNode::fullText(FullTextTerm term) {
  return QueryNode(std::move(term));
}

QueryNode QueryNode::and_(std::vector<QueryNode> children) {
  return QueryNode(And{Children(std::move(children))});
}

QueryNode QueryNode::or_(std::vector<QueryNode> children) {
  return QueryNode(Or{Children(std::move(children))});
}

QueryNode QueryNode::not_(QueryNode child) {
  std::vector<QueryNode> children;
  children.push_back(std::move(child));
  return QueryNode(Not{Children(std::move(children))});
}

QueryNode QueryNode::all() {
  return QueryNode(All{});
}

std::span<const QueryNode> QueryNode::children() const {
  using Nodes = std::span<const QueryNode>;
  return std::visit(overloaded{
                        [](const FieldPredicate&) { return Nodes{}; },
                        [](const ContextPredicate&) { return Nodes{}; },
                        [](const FullTextTerm&) { return Nodes{}; },
                        [](const And& node) { return Nodes(node.children.nodes()); },
                        [](const Or& node) { return Nodes(node.children.nodes()); },
                        [](const Not& node) { return Nodes(node.child.nodes()); },
                        [](const All&) { return Nodes{}; },
                    },
                    value_);
}

LogQuery::Compiled LogQuery::compile() const {
  return compiled(root, "seq IN (SELECT rowid FROM events_fts WHERE events_fts MATCH ?)");
}

LogQuery::Compiled compileForJudging(const LogQuery& query) {
  return compiled(query.root, std::string(kHasWordsFunction) + "(message, ?)");
}

LogQuery LogQuery::withFullTextAsSubstringScan() const {
  return {rewritten(root, [](const QueryNode& leaf) {
    const auto* term = std::get_if<FullTextTerm>(&leaf.value());
    if (!term || std::holds_alternative<FullTextMode::Regex>(term->mode.value())) return leaf;
    return QueryNode::fullText({term->raw, FullTextMode::substringScan(), term->matchCase});
  })};
}

LogQuery LogQuery::withContextAsSubstringScan() const {
  return {rewritten(root, [](const QueryNode& leaf) {
    const auto* predicate = std::get_if<ContextPredicate>(&leaf.value());
    if (!predicate) return leaf;
    return QueryNode::context({predicate->key, predicate->value, ContextMatch::substringScan});
  })};
}

bool LogQuery::isEmpty() const {
  return std::holds_alternative<QueryNode::All>(root.value());
}

std::string LogQuery::escapeLike(std::string_view text) {
  std::string escaped;
  escaped.reserve(text.size() + text.size() / 8);
  for (const char c : text) {
    if (c == '\\' || c == '%' || c == '_') escaped += '\\';
    escaped += c;
  }
  return escaped;
}

std::string LogQuery::ftsMatch(std::string_view text) {
  return ftsExpression(unicode::words(text));
}

bool LogQuery::isPrefixWord(std::string_view word) {
  unicode::CharacterReader characters(word);
  for (std::size_t i = 0; i < prefixCharacters; ++i) {
    if (characters.next().empty()) return false;
  }
  return true;
}

}  // namespace runeflow
