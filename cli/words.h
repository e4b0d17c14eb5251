// SPDX-License-Identifier: MIT

// The line that the user typed.
#pragma once

#include <algorithm>
#include <cstddef>
#include <span>
#include <string>
#include <vector>

namespace cli {

// The words of the command line after the name of the program.
class Words {
 public:
  Words(int argc, char** argv) : all_(argv + std::min(argc, 1), argv + argc) {
    optionsEnd_ = static_cast<std::size_t>(std::ranges::find(all_, "--") - all_.begin());
  }

  const std::vector<std::string>& all() const { return all_; }

  // Returns those that may be options: the words before "--".
  std::span<const std::string> options() const { return std::span(all_).first(optionsEnd_); }

  // Returns whether the word is typed after "--", where nothing is an option.
  bool isBehindOptions(const std::string& word) const {
    const auto others = std::span(all_).subspan(optionsEnd_);
    return std::ranges::find(others, word) != others.end();
  }

 private:
  std::vector<std::string> all_;
  std::size_t optionsEnd_ = 0;
};

}  // namespace cli
