// SPDX-License-Identifier: MIT

// Finds the pieces of a message that match a query, for highlighting.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/message_filter.h"
#include "runeflow/query/log_query.h"
#include "runeflow/store/word_marks.h"

namespace host {

// Marks the words of a query as the full-text index finds them, a text that messages must contain,
// and what a regular expression matches. Only one thread at a time may use an object.
class MessageMarks {
 public:
  // `contained` may be empty. Its place is found as LIKE finds it: without the case of ASCII
  // letters.
  MessageMarks(const runeflow::LogQuery& query, bool matchCase, std::string contained,
               std::optional<MessageFilter> filter);

  // Returns the pieces from left to right. They neither overlap nor touch.
  std::vector<TextRange> in(std::string_view message) const;

 private:
  runeflow::WordMarks words_;
  std::string contained_;
  std::optional<MessageFilter> filter_;
};

// Returns the first position of `text` in `message` at or after `from`, or npos. Ignores the case
// of ASCII letters.
std::size_t findIgnoringCase(std::string_view message, std::string_view text, std::size_t from = 0);

}  // namespace host
