#include "runeflow/query/query_parser.h"

#include <algorithm>
#include <ranges>

#include "runeflow/model/log_row.h"
#include "runeflow/platform/overloaded.h"
#include "runeflow/platform/unicode.h"

namespace runeflow::QueryParser {
namespace {

class Lexer {
 public:
  std::vector<Tok> lex(std::string_view text) {
    unicode::CharacterReader characters(text);
    for (auto c = characters.next(); !c.empty(); c = characters.next()) take(c);
    emitWord();
    return std::move(toks_);
  }

 private:
  void take(std::string_view character) {
    if (character == "\"") {
      wasQuoted_ = true;
      inQuotes_ = !inQuotes_;
    } else if (!inQuotes_ && unicode::isWhiteSpace(character)) {
      emitWord();
    } else if (!inQuotes_ && character == "(") {
      emitWord();
      toks_.push_back(Tok::lparen());
    } else if (!inQuotes_ && character == ")") {
      emitWord();
      toks_.push_back(Tok::rparen());
    } else {
      word_ += character;
    }
  }

  void emitWord() {
    const bool quoted = std::exchange(wasQuoted_, false);
    if (word_.empty()) return;
    if (!quoted && word_ == "AND") {
      toks_.push_back(Tok::and_());
    } else if (!quoted && word_ == "OR") {
      toks_.push_back(Tok::or_());
    } else if (!quoted && word_ == "NOT") {
      toks_.push_back(Tok::not_());
    } else {
      toks_.push_back(Tok::word(std::move(word_)));
    }
    word_.clear();
  }

  std::string word_;
  bool inQuotes_ = false;
  bool wasQuoted_ = false;
  std::vector<Tok> toks_;
};

QueryNode negated(QueryNode node, std::size_t times) {
  for (; times > 0; --times) node = QueryNode::not_(std::move(node));
  return node;
}

// Reads the tokens from left to right and keeps the open groups in a list, so that their number
// costs no stack. A run is a list of conditions that must all hold; a group is runs joined by OR.
class BoolParser {
 public:
  BoolParser(std::vector<Tok> toks, const SourceDescriptor& descriptor, bool matchCase)
      : toks_(std::move(toks)), descriptor_(descriptor), matchCase_(matchCase) {}

  LogQuery parse() {
    std::vector<QueryNode> conditions;
    while (i_ < toks_.size()) {
      const std::size_t before = i_;
      if (auto node = parseOr()) conditions.push_back(*std::move(node));
      if (i_ == before) ++i_;  // a stray ")"
    }
    auto root = reduce(coalesceFullText(std::move(conditions), matchCase_), Combinator::and_);
    return {root ? *std::move(root) : QueryNode::all()};
  }

 private:
  struct Group {
    std::size_t nots = 0;     // in front of its parenthesis
    std::size_t nesting = 0;  // parentheses and NOTs around its conditions
    std::vector<QueryNode> run;
    std::vector<QueryNode> branches;
  };

  // Runs joined by OR, with all groups in them. A group that turns out empty ends the run that it
  // stands in.
  std::optional<QueryNode> parseOr() {
    groups_.emplace_back();
    bool runGoesOn = true;
    while (true) {
      while (runGoesOn) runGoesOn = readCondition();
      endRun();
      runGoesOn = take<Tok::Or>();
      if (runGoesOn) continue;
      auto node = endGroup();
      if (groups_.empty()) return node;
      take<Tok::Rparen>();
      runGoesOn = node.has_value();
      if (node) groups_.back().run.push_back(*std::move(node));
    }
  }

  // Adds a condition to the run or opens a group; false where neither begins.
  bool readCondition() {
    if (take<Tok::And>() || skipTooDeep()) return true;
    std::size_t nots = 0;
    while (take<Tok::Not>()) ++nots;
    if (at<Tok::Word>(i_)) {
      const auto& word = std::get<Tok::Word>(toks_[i_++].value()).text;
      groups_.back().run.push_back(negated(leaf(word, descriptor_, matchCase_), nots));
      return true;
    }
    if (!take<Tok::Lparen>()) return false;
    groups_.push_back({nots, groups_.back().nesting + nots + 1, {}, {}});
    return true;
  }

  void endRun() {
    auto& [nots, nesting, run, branches] = groups_.back();
    auto branch = reduce(coalesceFullText(std::exchange(run, {}), matchCase_), Combinator::and_);
    if (branch) branches.push_back(*std::move(branch));
  }

  // What the innermost group stands for; absent when it is empty.
  std::optional<QueryNode> endGroup() {
    const std::size_t nots = groups_.back().nots;
    auto node = reduce(std::move(groups_.back().branches), Combinator::or_);
    groups_.pop_back();
    if (node) node = negated(*std::move(node), nots);
    return node;
  }

  // Skips the NOTs and the group ahead when they nest too deep.
  bool skipTooDeep() {
    std::size_t operand = i_;
    while (at<Tok::Not>(operand)) ++operand;
    const std::size_t levels = operand - i_ + (at<Tok::Lparen>(operand) ? 1 : 0);
    if (groups_.back().nesting + levels <= maxNesting) return false;
    i_ = operand;
    skipOperand();
    return true;
  }

  // A word, or a group to its closing parenthesis.
  void skipOperand() {
    if (take<Tok::Word>() || !at<Tok::Lparen>(i_)) return;
    std::size_t open = 0;
    do {
      if (at<Tok::Lparen>(i_)) ++open;
      if (at<Tok::Rparen>(i_)) --open;
      ++i_;
    } while (open > 0 && i_ < toks_.size());
  }

  template <class Case>
  bool at(std::size_t index) const {
    return index < toks_.size() && std::holds_alternative<Case>(toks_[index].value());
  }

  template <class Case>
  bool take() {
    if (!at<Case>(i_)) return false;
    ++i_;
    return true;
  }

  std::vector<Tok> toks_;
  const SourceDescriptor& descriptor_;
  bool matchCase_;
  std::size_t i_ = 0;
  std::vector<Group> groups_;  // open ones, the innermost last
};

struct NameAndValue {
  std::string_view name;
  std::string_view value;
};

// Cut at the first colon that is a character by itself; absent without one and for an empty value.
std::optional<NameAndValue> splitAtColon(std::string_view word) {
  auto colon = word.find(':');
  while (colon != std::string_view::npos && !unicode::standsAlone(word, colon)) {
    colon = word.find(':', colon + 1);
  }
  if (colon == std::string_view::npos || colon + 1 == word.size()) return std::nullopt;
  return NameAndValue{word.substr(0, colon), word.substr(colon + 1)};
}

bool isFts(const QueryNode& node) {
  const auto* term = std::get_if<FullTextTerm>(&node.value());
  return term && term->mode == FullTextMode::fts();
}

}  // namespace

LogQuery parse(std::string_view text, const SourceDescriptor& descriptor, bool matchCase) {
  return BoolParser(lex(text), descriptor, matchCase).parse();
}

std::vector<Tok> lex(std::string_view text) {
  return Lexer().lex(unicode::decodeLossily(text));
}

std::vector<std::string> highlightTerms(const QueryNode& node) {
  std::vector<std::string> terms;
  std::vector<const QueryNode*> pending{&node};
  while (!pending.empty()) {
    const QueryNode& next = *pending.back();
    pending.pop_back();
    if (const auto* term = std::get_if<FullTextTerm>(&next.value())) {
      for (const auto word : unicode::words(term->raw)) terms.emplace_back(word);
    }
    for (const auto& child : std::views::reverse(next.children())) pending.push_back(&child);
  }
  return terms;
}

std::optional<QueryNode> reduce(std::vector<QueryNode> nodes, Combinator combinator) {
  if (nodes.empty()) return std::nullopt;
  if (nodes.size() == 1) return std::move(nodes.front());
  return combinator == Combinator::and_ ? QueryNode::and_(std::move(nodes))
                                        : QueryNode::or_(std::move(nodes));
}

std::vector<QueryNode> coalesceFullText(std::vector<QueryNode> nodes, bool matchCase) {
  std::vector<QueryNode> merged;
  std::optional<std::string> pending;
  const auto flush = [&] {
    auto raw = std::exchange(pending, std::nullopt);
    if (!raw) return;
    merged.push_back(QueryNode::fullText({*std::move(raw), FullTextMode::fts(), matchCase}));
  };
  for (auto& node : nodes) {
    if (!isFts(node)) {
      flush();
      merged.push_back(std::move(node));
    } else if (!pending) {
      pending = std::get<FullTextTerm>(std::move(node).value()).raw;
    } else {
      *pending += ' ';
      *pending += std::get<FullTextTerm>(node.value()).raw;
    }
  }
  flush();
  return merged;
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
