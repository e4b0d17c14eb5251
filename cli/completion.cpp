// SPDX-License-Identifier: MIT
#include "completion.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <string_view>
#include <utility>

#include "host/database.h"
#include "host/deadline.h"
#include "host/failure.h"
#include "host/terminal_text.h"

namespace cli {

using runeflow::EventStore;

namespace {

constexpr std::chrono::milliseconds kPatience{500};
constexpr std::int64_t kMostValues = 50;

struct Candidate {
  std::string text;
  std::string description = {};
};

// What the words before the last one mean.
struct Line {
  const CommandDescription* command = nullptr;
  const OptionDescription* awaiting = nullptr;  // the option whose value the last word is
  std::vector<std::string> arguments;           // the words that are neither options nor values
  bool hasOptionsEnded = false;
};

const OptionDescription* optionNamed(const CommandDescription& command, std::string_view name) {
  const auto found = std::ranges::find_if(command.options, [name](const auto& option) {
    return !option.isArgument && std::ranges::find(option.names, name) != option.names.end();
  });
  return found == command.options.end() ? nullptr : &*found;
}

Line readLine(const ProgramDescription& program, const std::vector<std::string>& words) {
  Line line;
  line.command = &program.front();
  for (std::size_t i = 0; i + 1 < words.size(); ++i) {
    const auto& word = words[i];
    if (std::exchange(line.awaiting, nullptr)) continue;
    if (word == "--") {
      line.hasOptionsEnded = true;
    } else if (!line.hasOptionsEnded && word.starts_with('-')) {
      const auto* option = optionNamed(*line.command, word);
      if (option && !option->type.empty()) line.awaiting = option;
    } else if (line.command->name.empty()) {
      const auto found = std::ranges::find(program, word, &CommandDescription::name);
      if (found != program.end()) line.command = &*found;
    } else {
      line.arguments.push_back(word);
    }
  }
  return line;
}

std::vector<Candidate> levels() {
  std::vector<Candidate> candidates;
  for (const auto* level : {"trace", "debug", "info", "warn", "error", "fatal"}) {
    candidates.push_back({level});
  }
  return candidates;
}

std::optional<EventStore> opened(const std::vector<std::string>& arguments) {
  if (arguments.empty() || !host::isDatabaseFile(arguments.front())) return std::nullopt;
  try {
    return host::openDatabase(arguments.front(), "");
  } catch (const host::Failure&) {
    return std::nullopt;
  }
}

// Returns the fields of the database, each with `suffix`.
std::vector<Candidate> fields(const std::vector<std::string>& arguments, std::string_view suffix) {
  std::vector<Candidate> candidates;
  const auto store = opened(arguments);
  if (!store) return candidates;
  for (const auto& field : store->descriptor().queryableFields()) {
    if (field.column() == runeflow::StoreColumn::timestamp()) continue;
    candidates.push_back({fmt::format("{}{}", field.name(), suffix), field.label()});
  }
  return candidates;
}

// Returns the conditions field:value that begin with the word. A value that the query language
// would cut is in double quotes: the shells' scripts quote them for their shell.
std::vector<Candidate> conditions(const std::vector<std::string>& arguments,
                                  std::string_view word) {
  const auto colon = word.find(':');
  const auto name = word.substr(0, colon);
  std::vector<Candidate> candidates;
  auto store = opened(arguments);
  const auto* field = store ? store->descriptor().field(name) : nullptr;
  if (!field || !field->queryable()) return candidates;
  if (field->column() == runeflow::StoreColumn::level()) {
    candidates = levels();
  } else {
    auto typed = word.substr(colon + 1);
    const bool isQuoted = typed.starts_with('"');
    if (isQuoted) typed.remove_prefix(1);
    const host::Deadline deadline(*store, kPatience);
    for (const auto& value :
         store->valuesInOrder(field->column(), std::string(typed), kMostValues)) {
      if (value.find_first_of("\n\"\\") != std::string::npos) continue;
      const bool needsQuotes = value.find_first_of(" \t()'") != std::string::npos;
      candidates.push_back({isQuoted || needsQuotes ? fmt::format("\"{}\"", value) : value});
    }
  }
  for (auto& candidate : candidates) candidate.text = fmt::format("{}:{}", name, candidate.text);
  return candidates;
}

std::vector<Candidate> queryWords(const Line& line, std::string_view word,
                                  const Defaults& defaults) {
  if (word.contains(':')) return conditions(line.arguments, word);
  auto candidates = fields(line.arguments, ":");
  for (const auto* operation : {"AND", "OR", "NOT"}) candidates.push_back({operation});
  for (const auto& [name, query] : defaults.queries) candidates.push_back({'@' + name, query});
  return candidates;
}

// Returns the alternatives of a type that lists them: "auto|always|never".
std::vector<Candidate> alternatives(std::string_view type) {
  std::vector<Candidate> candidates;
  if (!type.contains('|') || type.contains('[')) return candidates;
  while (!type.empty()) {
    const auto end = type.find('|');
    candidates.push_back({std::string(type.substr(0, end))});
    type = end == std::string_view::npos ? std::string_view() : type.substr(end + 1);
  }
  return candidates;
}

struct Answer {
  std::vector<Candidate> candidates;
  bool takesFiles = false;
};

Answer valuesOf(const OptionDescription& option, const Line& line, std::string_view word,
                const Defaults& defaults) {
  if (option.type == "QUERY") return {queryWords(line, word, defaults)};
  return {alternatives(option.type), option.type == "PATH" || option.type == "DB"};
}

Answer answer(const ProgramDescription& program, const Defaults& defaults,
              const std::vector<std::string>& words) {
  const auto line = readLine(program, words);
  const std::string_view word = words.back();
  if (line.awaiting) return valuesOf(*line.awaiting, line, word, defaults);
  Answer result;
  if (word.starts_with('-') && !line.hasOptionsEnded) {
    const auto equals = word.find('=');
    const auto* option = optionNamed(*line.command, word.substr(0, equals));
    if (equals != std::string_view::npos && option) {
      result = valuesOf(*option, line, word.substr(equals + 1), defaults);
      for (auto& candidate : result.candidates) {
        candidate.text = fmt::format("{}{}", word.substr(0, equals + 1), candidate.text);
      }
      return result;
    }
    for (const auto& known : line.command->options) {
      if (!known.isArgument) result.candidates.push_back({known.names.back(), known.text});
    }
    return result;
  }
  if (line.command->name.empty()) {
    for (const auto& command : program) {
      if (!command.name.empty()) result.candidates.push_back({command.name, command.text});
    }
    return result;
  }
  std::vector<const OptionDescription*> arguments;
  for (const auto& option : line.command->options) {
    if (option.isArgument) arguments.push_back(&option);
  }
  if (arguments.empty()) return result;
  const auto& argument = *arguments[std::min(line.arguments.size(), arguments.size() - 1)];
  if (argument.names.front() == "QUERY") return {queryWords(line, word, defaults)};
  if (argument.names.front() == "FIELD") return {fields(line.arguments, "")};
  result.takesFiles = true;
  return result;
}

}  // namespace

void printCompletions(const ProgramDescription& program, const Defaults& defaults,
                      const std::vector<std::string>& words) {
  if (words.empty()) return;
  const auto [candidates, takesFiles] = answer(program, defaults, words);
  fmt::print("{}\n", takesFiles ? "files" : "words");
  for (const auto& [text, description] : candidates) {
    if (!text.starts_with(words.back()) || text == words.back()) continue;
    // A shell would take what the escapes stand for as part of its own line.
    const auto shown = host::terminalField(text);
    if (shown != text) continue;
    fmt::print("{}\t{}\n", text, host::terminalField(description));
  }
}

}  // namespace cli
