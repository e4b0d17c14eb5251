// SPDX-License-Identifier: MIT
#include "host/query_words.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>
#include <variant>

#include "host/record_text.h"
#include "host/terminal_text.h"

namespace host {

using namespace runeflow;

namespace {

constexpr int kDeepest = 200;  // SQLite refuses queries that are nested a quarter as deep

template <class... Cases>
struct overloaded : Cases... {
  using Cases::operator()...;
};

std::string quoted(std::string_view text) {
  return fmt::format("“{}”", terminalText(text));
}

std::string columnName(const StoreColumn& column, const SourceDescriptor& descriptor) {
  const auto& fields = descriptor.fields();
  const auto found = std::ranges::find(fields, column, &FieldDescriptor::column);
  if (found != fields.end()) return terminalText(found->name());
  return std::visit(
      overloaded{[](const StoreColumn::Slot& slot) { return fmt::format("slot {}", slot.index); },
                 [](const StoreColumn::Level&) { return std::string("level"); },
                 [](const StoreColumn::Timestamp&) { return std::string("time"); },
                 [](const StoreColumn::Message&) { return std::string("message"); }},
      column.value());
}

std::string timeInWords(std::int64_t microseconds) {
  return localTime(timestampFromMicroseconds(microseconds), TimeDigits::microseconds);
}

std::string valueInWords(const FieldPredicate& predicate) {
  const bool comparesOrder =
      predicate.op == FieldOp::greaterOrEqual || predicate.op == FieldOp::lessOrEqual;
  if (!predicate.value) return comparesOrder ? "0" : quoted("");
  const auto& value = predicate.value->value();
  if (const auto* text = std::get_if<std::string>(&value)) return quoted(*text);
  const auto number = std::get<std::int64_t>(value);
  const auto level = levelFromRawValue(number);
  if (predicate.column == StoreColumn::level() && level) return std::string(levelName(*level));
  if (predicate.column == StoreColumn::timestamp()) return timeInWords(number);
  return fmt::format("{}", number);
}

std::string operatorInWords(FieldOp op) {
  switch (op) {
    case FieldOp::equals:
      return "=";
    case FieldOp::notEquals:
      return "≠";
    case FieldOp::contains:
      return "contains";
    case FieldOp::prefix:
      return "begins with";
    case FieldOp::notPrefix:
      return "does not begin with";
    case FieldOp::greaterOrEqual:
      return "≥";
    case FieldOp::lessOrEqual:
      return "≤";
    case FieldOp::isNullOrEmpty:
      return "is empty";
  }
  return {};
}

std::string fieldInWords(const FieldPredicate& predicate, const SourceDescriptor& descriptor) {
  const auto name = columnName(predicate.column, descriptor);
  const auto comparison = operatorInWords(predicate.op);
  if (predicate.op == FieldOp::isNullOrEmpty) return fmt::format("{} {}", name, comparison);
  return fmt::format("{} {} {}", name, comparison, valueInWords(predicate));
}

std::string contextInWords(const ContextPredicate& predicate) {
  const std::string_view how = predicate.match == ContextMatch::json ? "=" : "contains";
  return fmt::format("ctx {} {} {}", quoted(predicate.key), how, quoted(predicate.value));
}

std::string termInWords(const FullTextTerm& term) {
  const auto mode = std::visit(
      overloaded{[](const FullTextMode::Fts&) { return std::string("text"); },
                 [](const FullTextMode::SubstringScan&) { return std::string("text containing"); },
                 [](const FullTextMode::Regex&) { return std::string("text matching"); }},
      term.mode.value());
  const auto* regex = std::get_if<FullTextMode::Regex>(&term.mode.value());
  const auto words = quoted(regex ? regex->pattern : term.raw);
  return fmt::format("{} {}{}", mode, words, term.matchCase ? " in this case" : "");
}

std::string nodeInWords(const QueryNode& node, const SourceDescriptor& descriptor, int depth);

// A child that is a list itself, with another operator or under a NOT, needs parentheses.
std::string childInWords(const QueryNode& node, const SourceDescriptor& descriptor, int depth) {
  const auto words = nodeInWords(node, descriptor, depth);
  return node.children().size() > 1 ? fmt::format("({})", words) : words;
}

std::string joined(std::span<const QueryNode> children, std::string_view operation,
                   const SourceDescriptor& descriptor, int depth) {
  if (children.empty()) return "everything";
  if (children.size() == 1) return nodeInWords(children.front(), descriptor, depth);
  std::string words;
  for (const auto& child : children) {
    if (!words.empty()) words += operation;
    words += childInWords(child, descriptor, depth);
  }
  return words;
}

std::string nodeInWords(const QueryNode& node, const SourceDescriptor& descriptor, int depth) {
  if (depth > kDeepest) return "…";
  const auto below = depth + 1;
  return std::visit(
      overloaded{
          [&](const FieldPredicate& predicate) { return fieldInWords(predicate, descriptor); },
          [](const ContextPredicate& predicate) { return contextInWords(predicate); },
          [](const FullTextTerm& term) { return termInWords(term); },
          [&](const QueryNode::And& list) {
            return joined(list.children.nodes(), " and ", descriptor, below);
          },
          [&](const QueryNode::Or& list) {
            return joined(list.children.nodes(), " or ", descriptor, below);
          },
          [&](const QueryNode::Not& negation) {
            const auto& child = negation.child.nodes().front();
            return "not " + childInWords(child, descriptor, below);
          },
          [](const QueryNode::All&) { return std::string("everything"); }},
      node.value());
}

}  // namespace

std::string inWords(const LogQuery& query, const SourceDescriptor& descriptor) {
  return nodeInWords(query.root, descriptor, 0);
}

}  // namespace host
