// SPDX-License-Identifier: MIT
#include "record_printer.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <utility>

#include "host/record_text.h"
#include "host/terminal_text.h"
#include "json_line.h"
#include "terminal.h"

namespace cli {

using runeflow::FetchedRow;
using runeflow::RuneflowLogLevel;

namespace {

constexpr std::size_t kWidestColumn = 28;
// Limits for highlighting, whose time is proportional to the number of words and the length of the
// text.
constexpr std::size_t kMostHighlightedWords = 64;
constexpr std::size_t kLongestHighlightedWord = 128;

char lowerAscii(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
}

bool isLetterOrDigit(char c) {
  return (lowerAscii(c) >= 'a' && lowerAscii(c) <= 'z') || (c >= '0' && c <= '9');
}

// Returns true if the full-text index finds a query word at the place from `start` to `end` of
// `text`. It finds a word at the beginning of a longer one only if it is a prefix word.
bool isFoundByIndex(std::string_view text, std::size_t start, std::size_t end, bool isPrefixWord) {
  const auto isWithinWord = [text](std::size_t at) {
    return at > 0 && at < text.size() && isLetterOrDigit(text[at - 1]) && isLetterOrDigit(text[at]);
  };
  return !isWithinWord(start) && (isPrefixWord || !isWithinWord(end));
}

// Sets the elements of `covered` for the bytes of `text` at which `word` occurs. Without
// `matchCase`, only the places count that the full-text index finds.
void cover(std::vector<bool>& covered, std::string_view text, std::string_view word,
           bool matchCase) {
  const auto same = [matchCase](char a, char b) {
    return a == b || (!matchCase && lowerAscii(a) == lowerAscii(b));
  };
  const bool isPrefixWord = runeflow::LogQuery::isPrefixWord(word);
  std::size_t at = 0;
  while (at < text.size()) {
    const auto found = std::ranges::search(text.substr(at), word, same);
    if (found.empty()) return;
    at = static_cast<std::size_t>(found.data() - text.data());
    if (matchCase || isFoundByIndex(text, at, at + word.size(), isPrefixWord)) {
      std::fill_n(covered.begin() + static_cast<std::ptrdiff_t>(at), word.size(), true);
      at += word.size();
    } else {
      ++at;
    }
  }
}

std::string_view slotText(const FetchedRow& record, std::int64_t slot) {
  return record.row.slot(slot).value_or(std::string_view());
}

}  // namespace

std::string_view levelColour(RuneflowLogLevel level) {
  switch (level) {
    case RuneflowLogLevel::Trace:
      return colour::kDim;
    case RuneflowLogLevel::Debug:
      return colour::kBlue;
    case RuneflowLogLevel::Info:
      return colour::kGreen;
    case RuneflowLogLevel::Warning:
      return colour::kYellow;
    case RuneflowLogLevel::Error:
    case RuneflowLogLevel::Fatal:
      return colour::kRed;
  }
  return {};
}

std::string csvField(std::string_view text) {
  if (text.find_first_of("\",\r\n") == std::string_view::npos) return std::string(text);
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"') quoted += '"';
    quoted += c;
  }
  return quoted + '"';
}

RecordPrinter::RecordPrinter(const runeflow::SourceDescriptor& descriptor, RecordFormat format,
                             Highlighting highlighting, std::FILE* out)
    : descriptor_(descriptor),
      format_(format),
      highlighting_(std::move(highlighting)),
      out_(out),
      isGuarded_(isTerminal(stdout)) {
  for (const auto& field : descriptor.fields()) {
    if (const auto* slot = std::get_if<runeflow::StoreColumn::Slot>(&field.column().value())) {
      columns_.push_back({field.name(), slot->index, field.inTable()});
    }
  }
  auto& words = highlighting_.words;
  std::erase_if(words,
                [](const std::string& word) { return word.size() > kLongestHighlightedWord; });
  std::ranges::sort(words);
  words.erase(std::ranges::unique(words).begin(), words.end());
  if (words.size() > kMostHighlightedWords) words.resize(kMostHighlightedWords);
  if (format_ == RecordFormat::csv) fmt::print(out_, "{}\r\n", csvHeader());
}

void RecordPrinter::print(std::span<const FetchedRow> records) {
  if (format_ == RecordFormat::people) fitColumnsTo(records);
  for (const auto& record : records) {
    switch (format_) {
      case RecordFormat::people:
        fmt::print(out_, "{}\n", peopleLine(record));
        break;
      case RecordFormat::plain:
        fmt::print(out_, "{}\n", host::plainLine(record, descriptor_));
        break;
      case RecordFormat::json:
        fmt::print(out_, "{}\n", jsonLine(record));
        break;
      case RecordFormat::csv:
        fmt::print(out_, "{}\r\n", csvLine(record));
        break;
    }
  }
}

// Widens the columns to the longest texts. Columns never become narrower, so that the lines of all
// pages are aligned.
void RecordPrinter::fitColumnsTo(std::span<const FetchedRow> records) {
  for (auto& column : columns_) {
    for (const auto& record : records) {
      const auto taken = columnsOf(host::terminalField(slotText(record, column.slot)));
      column.width = std::min(kWidestColumn, std::max(column.width, taken));
    }
  }
}

std::string RecordPrinter::peopleLine(const FetchedRow& record) const {
  const bool usesColour = highlighting_.usesColour;
  const auto paint = [usesColour](std::string_view code) {
    return usesColour ? code : std::string_view();
  };
  const auto level = record.row.level();
  std::string line =
      fmt::format("{}{}{} {}{}{}", paint(colour::kDim), host::localTime(record.row.timestamp()),
                  paint(colour::kReset), paint(levelColour(level)),
                  host::levelName(level).substr(0, 1), paint(colour::kReset));
  for (const auto& column : columns_) {
    if (!column.isInTable || column.width == 0) continue;
    line += ' ' + fitted(host::terminalField(slotText(record, column.slot)), column.width);
  }
  return line + "  " + highlighted(record.row.message());
}

std::string RecordPrinter::highlighted(std::string_view message) const {
  if (!highlighting_.usesColour || highlighting_.words.empty()) return host::terminalField(message);
  std::vector<bool> covered(message.size(), false);
  for (const auto& word : highlighting_.words)
    cover(covered, message, word, highlighting_.matchCase);
  std::string line;
  for (std::size_t start = 0; start < message.size();) {
    std::size_t end = start + 1;
    while (end < message.size() && covered[end] == covered[start]) ++end;
    const auto piece = host::terminalField(message.substr(start, end - start));
    line +=
        covered[start] ? fmt::format("{}{}{}", colour::kHighlight, piece, colour::kReset) : piece;
    start = end;
  }
  return line;
}

std::string RecordPrinter::jsonLine(const FetchedRow& record) const {
  nlohmann::ordered_json object;
  object["seq"] = record.seq;
  object["time"] = host::utcTime(record.row.timestamp());
  object["level"] = host::levelName(record.row.level());
  for (const auto& column : columns_) {
    const auto text = record.row.slot(column.slot);
    object[column.name] = text ? nlohmann::ordered_json(*text) : nlohmann::ordered_json(nullptr);
  }
  object["message"] = record.row.message();
  if (record.row.ctx()) object["ctx"] = *record.row.ctx();
  return cli::jsonLine(object, isGuarded_);
}

std::string RecordPrinter::csvHeader() const {
  std::string line = "seq,time,level";
  for (const auto& column : columns_) line += ',' + csvField(column.name);
  return line + ",message";
}

std::string RecordPrinter::csvLine(const FetchedRow& record) const {
  std::string line = fmt::format("{},{},{}", record.seq, host::utcTime(record.row.timestamp()),
                                 host::levelName(record.row.level()));
  const auto append = [&](std::string_view text) {
    line += ',' + (isGuarded_ ? csvField(host::terminalField(text)) : csvField(text));
  };
  for (const auto& column : columns_) append(slotText(record, column.slot));
  append(record.row.message());
  return line;
}

}  // namespace cli
