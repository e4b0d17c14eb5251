// SPDX-License-Identifier: MIT
#include "defaults.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <utility>

#include "host/failure.h"

namespace cli {

using host::fail;

namespace {

constexpr std::string_view kBlanks = " \t\r";
constexpr const char* kVariable = "RUNEFLOW_OPTS";

std::string environment(const char* name) {
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe)
  return value ? value : "";
}

std::string_view trimmed(std::string_view text) {
  const auto begin = text.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

bool isNameLetter(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-';
}

// Returns the words between blanks; quotes of either kind make blanks ordinary.
std::vector<std::string> wordsOf(std::string_view text) {
  std::vector<std::string> words;
  bool isInWord = false;
  char quote = 0;
  for (const char c : text) {
    if (!quote && (kBlanks.contains(c) || c == '\n')) {
      isInWord = false;
      continue;
    }
    if (!std::exchange(isInWord, true)) words.emplace_back();
    if (!quote && (c == '"' || c == '\'')) {
      quote = c;
    } else if (c == quote) {
      quote = 0;
    } else {
      words.back() += c;
    }
  }
  if (quote) fail("a quote stays open in {}", kVariable);
  return words;
}

// Returns the option that the word begins: --name or --name=value.
DefaultOption optionOf(std::string_view word, std::string place) {
  const auto equals = word.find('=');
  DefaultOption option{std::string(word.substr(0, equals)), "", false, std::move(place)};
  if (equals != std::string_view::npos) {
    option.value = word.substr(equals + 1);
    option.hasValue = true;
  }
  return option;
}

void readVariable(Defaults& defaults) {
  for (const auto& word : wordsOf(environment(kVariable))) {
    if (word.starts_with('-')) {
      defaults.options.push_back(optionOf(word, kVariable));
    } else if (!defaults.options.empty() && !defaults.options.back().hasValue) {
      defaults.options.back().value = word;
      defaults.options.back().hasValue = true;
    } else {
      fail("{} holds '{}', which is no option; write options such as --utc --last=50", kVariable,
           word);
    }
  }
}

void readLine(std::string_view line, const std::string& place, Defaults& defaults) {
  if (line.empty() || line.starts_with('#')) return;
  const auto end = line.find_first_of(" \t=", 1);
  const auto name = line.substr(0, end);
  auto value = end == std::string_view::npos ? std::string_view() : trimmed(line.substr(end));
  if (value.starts_with('=')) value = trimmed(value.substr(1));
  if (line.starts_with('@')) {
    const bool isName = name.size() > 1 && std::ranges::all_of(name.substr(1), isNameLetter);
    if (!isName || value.empty()) {
      fail("{}: a saved query is @name = QUERY; its name has letters, digits, - and _", place);
    }
    defaults.queries[std::string(name.substr(1))] = value;
    return;
  }
  if (!line.starts_with("--")) {
    fail("{}: '{}' is neither an option such as --utc nor a saved query @name = QUERY", place,
         line);
  }
  defaults.options.push_back({std::string(name), std::string(value), !value.empty(), place});
}

std::string configPath() {
  const auto folder = environment("XDG_CONFIG_HOME");
  if (!folder.empty()) return folder + "/runeflow/config";
  const auto home = environment("HOME");
  return home.empty() ? "" : home + "/.config/runeflow/config";
}

std::string expanded(std::string_view line, const Defaults& defaults, int depth) {
  constexpr int kDeepest = 10;
  constexpr std::size_t kLongest = std::size_t{1} << 20;  // bytes
  std::string text;
  bool isQuoted = false;
  for (std::size_t at = 0; at < line.size(); ++at) {
    const char c = line[at];
    if (c == '"') isQuoted = !isQuoted;
    const auto isEdge = [](char other) { return std::string_view(" \t\r\n()").contains(other); };
    const bool begins = !isQuoted && c == '@' && (at == 0 || isEdge(line[at - 1]));
    auto end = at + 1;
    while (begins && end < line.size() && isNameLetter(line[end])) ++end;
    const auto found = begins && (end == line.size() || isEdge(line[end]))
                           ? defaults.queries.find(std::string(line.substr(at + 1, end - at - 1)))
                           : defaults.queries.end();
    if (found == defaults.queries.end()) {
      text += c;
      continue;
    }
    if (depth >= kDeepest) fail("the saved query @{} contains itself", found->first);
    text += fmt::format("({})", expanded(found->second, defaults, depth + 1));
    if (text.size() > kLongest) fail("the saved query @{} is too long", found->first);
    at = end - 1;
  }
  return text;
}

}  // namespace

Defaults readDefaults() {
  constexpr std::size_t kLargestFile = 65'536;  // bytes
  Defaults defaults;
  readVariable(defaults);
  const auto path = configPath();
  std::ifstream file(path, std::ios::binary);
  if (path.empty() || !file) return defaults;
  std::string text(kLargestFile + 1, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(file.gcount()));
  if (text.size() > kLargestFile) fail("{} is larger than 64 KiB", path);
  int number = 0;
  for (std::string_view rest = text; !rest.empty();) {
    const auto end = rest.find('\n');
    readLine(trimmed(rest.substr(0, end)), fmt::format("{}:{}", path, ++number), defaults);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
  }
  return defaults;
}

std::string withSavedQueries(std::string_view line, const Defaults& defaults) {
  return defaults.queries.empty() ? std::string(line) : expanded(line, defaults, 0);
}

}  // namespace cli
