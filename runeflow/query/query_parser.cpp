// SPDX-License-Identifier: MIT
#include "runeflow/query/query_parser.h"

#include <algorithm>
#include <ranges>

#include "runeflow/model/log_row.h"
#include "runeflow/platform/overloaded_p.h"
#include "runeflow/platform/unicode_p.h"

namespace runeflow::QueryParser {
namespace {

// Cuts a valid UTF-8 text into tokens, one per call. The text must outlive the lexer.
class Lexer {
 public:
  explicit Lexer(std::string_view text) : characters_(text) {}

  // Returns the next token; absent at the end of the text.
  std::optional<Tok> next() {
    while (true) {
      const auto character = nextCharacter();
      if (character == "\"") {
        wasQuoted_ = true;
        inQuotes_ = !inQuotes_;
      } else if (!endsWord(character)) {
        word_ += character;
      } else if (!word_.empty()) {
        held_ = character;
        return takeWord();
      } else {
        wasQuoted_ = false;
        if (character.empty()) return std::nullopt;
        if (character == "(") return Tok::lparen();
        if (character == ")") return Tok::rparen();
      }
    }
  }

 private:
  std::string_view nextCharacter() {
    return held_.empty() ? characters_.next() : std::exchange(held_, {});
  }

  // An empty character means the end of the text, which ends a word even inside quotes.
  bool endsWord(std::string_view character) const {
    return character.empty() || (!inQuotes_ && (character == "(" || character == ")" ||
                                                unicode::isWhiteSpace(character)));
  }

  Tok takeWord() {
    const bool quoted = std::exchange(wasQuoted_, false);
    std::string word = std::exchange(word_, {});
    if (!quoted && word == "AND") return Tok::and_();
    if (!quoted && word == "OR") return Tok::or_();
    if (!quoted && word == "NOT") return Tok::not_();
    return Tok::word(std::move(word));
  }

  unicode::CharacterReader characters_;
  std::string_view held_;  // the character that ended the last word, to be read again
  std::string word_;
  bool inQuotes_ = false;
  bool wasQuoted_ = false;
};

bool isFts(const QueryNode& node) {
  const auto* term = std::get_if<FullTextTerm>(&node.value());
  return term && term->mode == FullTextMode::fts();
}

// A tree, and how many ANDs, ORs and NOTs lie above its deepest condition.
struct Tree {
  QueryNode root;
  std::size_t depth = 0;
};

// Collects the operands of an AND or OR. An AND merges neighbouring `fts` terms at once, because a
// node for each word of a long line would take fifty times the memory of the line.
class Operands {
 public:
  Operands(Combinator combinator, bool matchCase)
      : combinator_(combinator), matchCase_(matchCase) {}

  bool isEmpty() const { return nodes_.empty() && !term_; }

  void add(Tree tree) {
    depth_ = std::max(depth_, tree.depth);
    if (combinator_ == Combinator::or_ || !isFts(tree.root)) {
      endTerm();
      nodes_.push_back(std::move(tree.root));
      return;
    }
    auto raw = std::get<FullTextTerm>(std::move(tree.root).value()).raw;
    if (term_) {
      *term_ += ' ';
      *term_ += raw;
    } else {
      term_ = std::move(raw);
    }
  }

  // Returns the operands and empties the collection.
  std::vector<QueryNode> takeNodes() {
    endTerm();
    return std::exchange(nodes_, {});
  }
  // Returns the operands joined into one tree and empties the collection; absent if it is empty.
  std::optional<Tree> take() {
    auto nodes = takeNodes();
    const std::size_t depth = std::exchange(depth_, 0) + (nodes.size() > 1 ? 1 : 0);
    auto root = reduce(std::move(nodes), combinator_);
    if (!root) return std::nullopt;
    return Tree{*std::move(root), depth};
  }

 private:
  void endTerm() {
    if (!term_) return;
    nodes_.push_back(QueryNode::fullText({*std::move(term_), FullTextMode::fts(), matchCase_}));
    term_.reset();
  }

  Combinator combinator_;
  bool matchCase_;
  std::size_t depth_ = 0;  // the depth of the deepest operand
  std::vector<QueryNode> nodes_;
  std::optional<std::string> term_;  // the joined texts of the latest `fts` terms
};

Tree negated(Tree tree, std::size_t times) {
  for (std::size_t i = 0; i < times; ++i) tree.root = QueryNode::not_(std::move(tree.root));
  return {std::move(tree.root), tree.depth + times};
}

// Reads the tokens from left to right. Keeps the open groups in a list, because recursion would
// need stack for each of them. A group consists of runs joined by OR. A run consists of conditions
// joined by AND.
class BoolParser {
 public:
  BoolParser(std::string_view text, const SourceDescriptor& descriptor, bool matchCase)
      : lexer_(text), tok_(lexer_.next()), descriptor_(descriptor), matchCase_(matchCase) {}

  LogQuery parse() {
    Operands conditions(Combinator::and_, matchCase_);
    while (tok_) {
      if (auto tree = parseOr()) conditions.add(*std::move(tree));
      take<Tok::Rparen>();  // a stray parenthesis
    }
    auto tree = conditions.take();
    return {tree ? std::move(tree->root) : QueryNode::all()};
  }

 private:
  // Three levels are reserved: later conditions may add an AND and an OR above the condition, and
  // parse() may add another AND after a stray parenthesis.
  static constexpr std::size_t kDeepestCondition = maxDepth - 3;

  struct Group {
    std::size_t nots;       // NOTs in front of its parenthesis
    std::size_t depth;      // ANDs, ORs and NOTs outside the group that lie above its conditions
    Operands run;           // the conditions since the last OR
    Operands branches;      // the finished runs
    std::size_t wraps = 0;  // open parentheses that so far enclose nothing but this group

    // Returns the number of ANDs, ORs and NOTs above the next operand.
    std::size_t operandDepth() const {
      return depth + (run.isEmpty() ? 0 : 1) + (branches.isEmpty() ? 0 : 1);
    }
  };

  // Parses runs joined by OR, including the groups in them, up to a stray closing parenthesis or
  // the end of the text. An empty group ends the run that contains it.
  std::optional<Tree> parseOr() {
    openGroup(0, 0);
    bool runGoesOn = true;
    while (true) {
      while (runGoesOn) runGoesOn = readCondition();
      endRun();
      runGoesOn = take<Tok::Or>();
      if (runGoesOn) continue;
      auto tree = endGroup();
      if (groups_.empty()) return tree;
      take<Tok::Rparen>();
      runGoesOn = tree.has_value();
      auto& group = groups_.back();
      if (tree && group.operandDepth() + tree->depth <= kDeepestCondition) {
        group.run.add(*std::move(tree));
      }
    }
  }

  // Adds a condition to the run, opens a group, or skips an operand that would lie too deep.
  // Returns false if the next token ends the run.
  bool readCondition() {
    if (take<Tok::And>()) return true;
    auto& group = groups_.back();
    std::size_t nots = 0;
    while (take<Tok::Not>()) ++nots;
    const std::size_t depth = group.operandDepth() + nots;
    const bool isGroup = at<Tok::Lparen>();
    if (depth == group.depth && take<Tok::Lparen>()) {
      ++group.wraps;
    } else if ((nots > 0 || isGroup) && depth > kDeepestCondition) {
      skipOperand();
    } else if (at<Tok::Word>()) {
      const auto& word = std::get<Tok::Word>(tok_->value()).text;
      group.run.add(negated({leaf(word, descriptor_, matchCase_)}, nots));
      advance();
    } else if (take<Tok::Lparen>()) {
      openGroup(nots, depth);
    } else {
      return false;
    }
    return true;
  }

  void openGroup(std::size_t nots, std::size_t depth) {
    groups_.push_back({nots, depth, Operands(Combinator::and_, matchCase_),
                       Operands(Combinator::or_, matchCase_)});
  }

  void endRun() {
    auto& group = groups_.back();
    if (auto branch = group.run.take()) group.branches.add(*std::move(branch));
  }

  // Closes the innermost group, or one of the parentheses around it. Returns the tree of the group;
  // absent if the group is empty.
  std::optional<Tree> endGroup() {
    auto& group = groups_.back();
    auto tree = group.branches.take();
    if (group.wraps > 0) {
      --group.wraps;
      return tree;
    }
    if (tree) tree = negated(*std::move(tree), group.nots);
    groups_.pop_back();
    return tree;
  }

  // Skips a word, or a group up to its closing parenthesis.
  void skipOperand() {
    if (take<Tok::Word>() || !at<Tok::Lparen>()) return;
    std::size_t open = 0;
    do {
      if (at<Tok::Lparen>()) ++open;
      if (at<Tok::Rparen>()) --open;
      advance();
    } while (open > 0 && tok_);
  }

  template <class Case>
  bool at() const {
    return tok_ && std::holds_alternative<Case>(tok_->value());
  }

  template <class Case>
  bool take() {
    if (!at<Case>()) return false;
    advance();
    return true;
  }

  void advance() { tok_ = lexer_.next(); }

  Lexer lexer_;
  std::optional<Tok> tok_;  // the next token; absent at the end of the text
  const SourceDescriptor& descriptor_;
  bool matchCase_;
  std::vector<Group> groups_;  // the open groups, the innermost last
};

struct NameAndValue {
  std::string_view name;
  std::string_view value;
};

// Splits `word` at its first colon. Ignores a colon that carries a combining mark or is joined to
// the character before it. Returns nothing if there is no colon or no text after it.
std::optional<NameAndValue> splitAtColon(std::string_view word) {
  auto colon = word.find(':');
  while (colon != std::string_view::npos && !unicode::standsAlone(word, colon)) {
    colon = word.find(':', colon + 1);
  }
  if (colon == std::string_view::npos || colon + 1 == word.size()) return std::nullopt;
  return NameAndValue{word.substr(0, colon), word.substr(colon + 1)};
}

void appendHighlightTerms(const QueryNode& node, std::vector<std::string>& terms) {
  if (const auto* term = std::get_if<FullTextTerm>(&node.value())) {
    for (const auto word : unicode::words(term->raw)) terms.emplace_back(word);
  }
  for (const auto& child : node.children()) appendHighlightTerms(child, terms);
}

}  // namespace

LogQuery parse(std::string_view text, const SourceDescriptor& descriptor, bool matchCase) {
  const std::string valid = unicode::decodeLossily(text);
  return BoolParser(valid, descriptor, matchCase).parse();
}

std::vector<Tok> lex(std::string_view text) {
  const std::string valid = unicode::decodeLossily(text);
  Lexer lexer(valid);
  std::vector<Tok> toks;
  for (auto tok = lexer.next(); tok; tok = lexer.next()) toks.push_back(*std::move(tok));
  return toks;
}

std::vector<std::string> highlightTerms(const QueryNode& node) {
  std::vector<std::string> terms;
  appendHighlightTerms(node, terms);
  return terms;
}

std::optional<QueryNode> reduce(std::vector<QueryNode> nodes, Combinator combinator) {
  if (nodes.empty()) return std::nullopt;
  if (nodes.size() == 1) return std::move(nodes.front());
  return combinator == Combinator::and_ ? QueryNode::and_(std::move(nodes))
                                        : QueryNode::or_(std::move(nodes));
}

std::vector<QueryNode> coalesceFullText(std::vector<QueryNode> nodes, bool matchCase) {
  Operands operands(Combinator::and_, matchCase);
  for (auto& node : nodes) operands.add({std::move(node)});
  return operands.takeNodes();
}

QueryNode leaf(std::string_view word, const SourceDescriptor& descriptor, bool matchCase) {
  if (auto context = contextPredicate(word)) return QueryNode::context(*std::move(context));
  if (auto field = fieldPredicate(word, descriptor)) return QueryNode::field(*std::move(field));
  return QueryNode::fullText({std::string(word), FullTextMode::fts(), matchCase});
}

std::optional<ContextPredicate> contextPredicate(std::string_view word) {
  constexpr std::string_view kPrefix = "ctx.";
  const auto parts = splitAtColon(word);
  if (!parts || parts->name.size() <= kPrefix.size()) return std::nullopt;
  const auto [name, value] = *parts;
  if (!unicode::equalsIgnoringCase(name.substr(0, kPrefix.size()), kPrefix) ||
      !unicode::standsAlone(name, kPrefix.size() - 1)) {
    return std::nullopt;
  }
  return ContextPredicate{std::string(name.substr(kPrefix.size())), std::string(value)};
}

std::optional<FieldPredicate> fieldPredicate(std::string_view word,
                                             const SourceDescriptor& descriptor) {
  const auto parts = splitAtColon(word);
  if (!parts) return std::nullopt;
  const auto* field = descriptor.field(parts->name);
  if (!field || !field->queryable()) return std::nullopt;
  const auto& column = field->column();
  if (column == StoreColumn::timestamp()) return std::nullopt;
  if (column != StoreColumn::level()) {
    return FieldPredicate{column, FieldOp::equals, Bind::text(std::string(parts->value))};
  }
  const auto level = levelValue(parts->value);
  if (!level) return std::nullopt;
  return FieldPredicate{column, FieldOp::greaterOrEqual, Bind::int_(*level)};
}

std::optional<std::int64_t> levelValue(std::string_view text) {
  static constexpr struct {
    std::string_view name;
    RuneflowLogLevel level;
  } kLevels[] = {
      {"trace", RuneflowLogLevel::Trace},  {"debug", RuneflowLogLevel::Debug},
      {"info", RuneflowLogLevel::Info},    {"warning", RuneflowLogLevel::Warning},
      {"warn", RuneflowLogLevel::Warning}, {"error", RuneflowLogLevel::Error},
      {"err", RuneflowLogLevel::Error},    {"fatal", RuneflowLogLevel::Fatal},
      {"fault", RuneflowLogLevel::Fatal},  {"critical", RuneflowLogLevel::Fatal},
  };
  const auto* found = std::ranges::find_if(
      kLevels, [lower = unicode::toLower(text)](const auto& row) { return row.name == lower; });
  if (found == std::end(kLevels)) return std::nullopt;
  return rawValue(found->level);
}

}  // namespace runeflow::QueryParser
