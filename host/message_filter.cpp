// SPDX-License-Identifier: MIT
#include "host/message_filter.h"

#include <re2/re2.h>

#include "host/failure.h"

namespace host {
namespace {

// Returns the number of bytes of the character that begins at `at`. A byte that is not UTF-8 counts
// as a character.
std::size_t characterSize(std::string_view text, std::size_t at) {
  std::size_t end = at + 1;
  while (end < text.size() && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) ++end;
  return end - at;
}

}  // namespace

MessageFilter::MessageFilter(const std::string& expression) {
  re2::RE2::Options options;
  options.set_log_errors(false);  // RE2 would write them to standard error
  auto compiled = std::make_shared<const re2::RE2>(expression, options);
  if (!compiled->ok()) {
    fail("'{}' is not a regular expression: {}", expression, compiled->error());
  }
  expression_ = std::move(compiled);
}

bool MessageFilter::matches(std::string_view message) const {
  return re2::RE2::PartialMatch(re2::StringPiece(message.data(), message.size()), *expression_);
}

std::vector<TextRange> MessageFilter::in(std::string_view message) const {
  std::vector<TextRange> ranges;
  const re2::StringPiece text(message.data(), message.size());
  std::size_t at = 0;
  re2::StringPiece match;
  while (at <= message.size() &&
         expression_->Match(text, at, message.size(), re2::RE2::UNANCHORED, &match, 1)) {
    const auto begin = static_cast<std::size_t>(match.data() - text.data());
    const auto end = begin + match.size();
    if (end > begin) ranges.push_back({begin, end});
    // An empty match would be found again at its place.
    at = end > begin ? end : end + characterSize(message, end);
  }
  return ranges;
}

}  // namespace host
