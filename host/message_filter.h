// SPDX-License-Identifier: MIT

// A regular expression as a filter over the messages that a query finds.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace re2 {
class RE2;
}

namespace host {

// A piece of a text: the bytes from `begin` to before `end`.
struct TextRange {
  std::size_t begin;
  std::size_t end;
  bool operator==(const TextRange&) const = default;
};

// An expression in the syntax of RE2, which has no back references and takes time proportional to
// the length of the message. Upper and lower case differ unless the expression begins with (?i). It
// may match anywhere in a message; ^ and $ are the message's ends, and a dot does not match a line
// feed. Copies share the compiled expression, and several threads may use it at once.
class MessageFilter {
 public:
  // Fails with RE2's reason if the expression is not valid.
  explicit MessageFilter(const std::string& expression);

  bool matches(std::string_view message) const;

  // Returns the pieces that match, from left to right, without the empty ones.
  std::vector<TextRange> in(std::string_view message) const;

 private:
  std::shared_ptr<const re2::RE2> expression_;
};

}  // namespace host
