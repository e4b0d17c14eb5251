// SPDX-License-Identifier: MIT
#include "host/message_marks.h"

#include <algorithm>
#include <utility>

namespace host {
namespace {

char lowerAscii(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
}

// Sorts the ranges and joins those that overlap or touch.
std::vector<TextRange> joined(std::vector<TextRange> ranges) {
  std::ranges::sort(ranges, {},
                    [](const TextRange& range) { return std::pair(range.begin, range.end); });
  std::vector<TextRange> result;
  for (const auto& range : ranges) {
    if (!result.empty() && range.begin <= result.back().end) {
      result.back().end = std::max(result.back().end, range.end);
    } else {
      result.push_back(range);
    }
  }
  return result;
}

}  // namespace

MessageMarks::MessageMarks(const runeflow::LogQuery& query, bool matchCase, std::string contained,
                           std::optional<MessageFilter> filter)
    : words_(query, matchCase), contained_(std::move(contained)), filter_(std::move(filter)) {}

std::vector<TextRange> MessageMarks::in(std::string_view message) const {
  std::vector<TextRange> ranges;
  for (const auto& [begin, end] : words_.in(message)) ranges.push_back({begin, end});
  if (filter_) {
    const auto matches = filter_->in(message);
    ranges.insert(ranges.end(), matches.begin(), matches.end());
  }
  if (!contained_.empty()) {
    for (auto at = findIgnoringCase(message, contained_); at != std::string_view::npos;
         at = findIgnoringCase(message, contained_, at + contained_.size())) {
      ranges.push_back({at, at + contained_.size()});
    }
  }
  return joined(std::move(ranges));
}

std::size_t findIgnoringCase(std::string_view message, std::string_view text, std::size_t from) {
  if (from > message.size()) return std::string_view::npos;
  const auto rest = message.substr(from);
  const auto found = std::ranges::search(
      rest, text, [](char a, char b) { return lowerAscii(a) == lowerAscii(b); });
  if (found.empty() && !text.empty()) return std::string_view::npos;
  return from + static_cast<std::size_t>(found.begin() - rest.begin());
}

}  // namespace host
