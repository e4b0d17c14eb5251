// SPDX-License-Identifier: MIT
/// \file
/// Finds where the words of a query stand in a message, for highlighting.
///
///     const WordMarks marks(query, false);
///     for (const auto [begin, end] : marks.in(row.message())) { … }
///
/// A mark covers what the full-text index finds: a whole word of the message, even if the query
/// holds only its beginning or writes it in another case, or several words for a phrase such as
/// `a.b`.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>
#include <vector>

#include "runeflow/platform/api.h"
#include "runeflow/query/log_query.h"

namespace runeflow {

/// The words of one query. Only one thread at a time may use an object. A moved-from object may
/// only be assigned to or destroyed.
class RUNEFLOW_EXPORT WordMarks {
 public:
  /// Takes the full-text terms of `query` that are not under a NOT. If `matchCase` is true, or if a
  /// term has it set, only places with the exact text of the word are marked. Terms of the mode
  /// `substringScan`, and all terms if SQLite has no FTS5, mark the text itself and ignore the case
  /// of ASCII letters.
  WordMarks(const LogQuery& query, bool matchCase);
  WordMarks(WordMarks&&) noexcept;             ///< Takes the words of another object.
  WordMarks& operator=(WordMarks&&) noexcept;  ///< Takes the words of another object.
  ~WordMarks();

  /// A piece of a message: the bytes [begin, end).
  struct Range {
    std::size_t begin;  ///< The first byte.
    std::size_t end;    ///< The byte after the last byte.
    bool operator==(const Range&) const = default;
  };

  /// Returns the pieces of `message` to highlight, in ascending order. They do not overlap.
  std::vector<Range> in(std::string_view message) const;

 private:
  class Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace runeflow
