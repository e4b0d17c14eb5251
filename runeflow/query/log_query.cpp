#include "runeflow/query/log_query.h"

#include <memory>

#include "runeflow/model/json_text_p.h"
#include "runeflow/platform/overloaded_p.h"
#include "runeflow/platform/unicode_p.h"

namespace runeflow {
namespace {

constexpr std::size_t kPrefixCharacters = 3;  // from this length on a word finds longer ones too

bool hasCharacters(std::string_view text, std::size_t count) {
  unicode::CharacterReader characters(text);
  while (count > 0 && !characters.next().empty()) --count;
  return count == 0;
}

void appendQuoted(std::string& out, std::string_view text) {
  out += '"';
  for (const char c : text) {
    if (c == '"') out += '"';
    out += c;
  }
  out += '"';
}

std::string ftsExpression(std::span<const std::string_view> words) {
  std::string expression;
  for (const auto word : words) {
    if (!expression.empty()) expression += ' ';
    appendQuoted(expression, word);
    if (hasCharacters(word, kPrefixCharacters)) expression += '*';
  }
  return expression;
}

std::string containing(std::string_view text) {
  return '%' + LogQuery::escapeLike(text) + '%';
}

std::string beginningWith(std::string_view text) {
  return LogQuery::escapeLike(text) + '%';
}

std::string_view textOf(const std::optional<Bind>& value) {
  const auto* text = value ? std::get_if<std::string>(&value->value()) : nullptr;
  return text ? std::string_view(*text) : std::string_view{};
}

// Writes the clause from left to right. Every piece with a "?" goes through condition(), so that
// placeholders and binds stay in step.
class Compiler {
 public:
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
  // Not part of write(), whose frame every level of the tree takes once more. A list of no
  // conditions holds for every record.
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
    std::string path = "$.";
    appendQuoted(path, predicate.key);
    condition("json_extract(ctx, ?)", Bind::text(std::move(path)));
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

  // The index folds case, so it finds the candidates and instr() keeps those of the exact case.
  void match(std::string_view text, bool matchCase) {
    const auto words = unicode::words(text);
    if (matchCase) compiled_.clause += '(';
    condition("seq IN (SELECT rowid FROM events_fts WHERE events_fts MATCH ?)",
              Bind::text(ftsExpression(words)));
    if (!matchCase) return;
    for (const auto word : words) {
      condition(" AND instr(message, ?) > 0", Bind::text(std::string(word)));
    }
    compiled_.clause += ')';
  }

  LogQuery::Compiled compiled_;
};

QueryNode withChildren(const QueryNode& node, std::vector<QueryNode> children) {
  if (std::holds_alternative<QueryNode::And>(node.value())) {
    return QueryNode::and_(std::move(children));
  }
  if (std::holds_alternative<QueryNode::Or>(node.value())) {
    return QueryNode::or_(std::move(children));
  }
  return QueryNode::not_(std::move(children.front()));
}

// The tree with every childless node replaced by what `rewriteLeaf` makes of it.
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
  Compiler compiler;
  compiler.write(root);
  return std::move(compiler).take();
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

}  // namespace runeflow
