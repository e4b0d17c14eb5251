// SPDX-License-Identifier: MIT
#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <limits>
#include <optional>

#include "runeflow/decoders/logcat_line_p.h"
#include "runeflow/platform/unicode_p.h"

namespace runeflow {
namespace {

// Returns true if `wanted` is a whole user-perceived character at `position`. A space with a
// combining mark, for example, is not a separator.
bool isCharacter(std::string_view text, std::size_t position, char wanted) {
  return text[position] == wanted && unicode::standsAlone(text, position);
}

// A plain loop: fields are so short that a call of memchr would cost more.
std::size_t findCharacter(std::string_view text, char wanted) {
  for (std::size_t position = 0; position < text.size(); ++position) {
    if (isCharacter(text, position, wanted)) return position;
  }
  return std::string_view::npos;
}

void skipSpaces(std::string_view& text) {
  while (!text.empty() && isCharacter(text, 0, ' ')) text.remove_prefix(1);
}

// Removes the next field from `text` and returns it. Returns an empty view at the end of the text.
std::string_view takeField(std::string_view& text) {
  skipSpaces(text);
  const auto field = text.substr(0, findCharacter(text, ' '));
  text.remove_prefix(field.size());
  return field;
}

// Returns the pieces between the separators, including empty pieces. Absent unless there are
// exactly N pieces.
template <std::size_t N>
std::optional<std::array<std::string_view, N>> splitInto(std::string_view text, char separator) {
  std::array<std::string_view, N> pieces;
  for (std::size_t i = 0; i + 1 < N; ++i) {
    const auto end = findCharacter(text, separator);
    if (end == std::string_view::npos) return std::nullopt;
    pieces[i] = text.substr(0, end);
    text.remove_prefix(end + 1);
  }
  if (findCharacter(text, separator) != std::string_view::npos) return std::nullopt;
  pieces[N - 1] = text;
  return pieces;
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

std::string_view withoutSign(std::string_view text) {
  if (!text.empty() && (text[0] == '+' || text[0] == '-')) text.remove_prefix(1);
  return text;
}

bool isInteger(std::string_view text) {
  const auto digits = withoutSign(text);
  return !digits.empty() && std::ranges::all_of(digits, isDigit);
}

// Absent if the text is not an integer or the number does not fit into 64 bits.
std::optional<std::int64_t> toInteger(std::string_view text) {
  if (!isInteger(text)) return std::nullopt;
  if (text[0] == '+') text.remove_prefix(1);
  std::int64_t number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  if (result.ec != std::errc()) return std::nullopt;
  return number;
}

std::optional<std::int64_t> toIntegerWithin(std::string_view text, std::int64_t first,
                                            std::int64_t last) {
  const auto number = toInteger(text);
  return number && *number >= first && *number <= last ? number : std::nullopt;
}

// Reads `fraction`, the text after the full stop of the seconds, as a whole number of milliseconds.
// Any other text counts as 0. Absent if the number, in nanoseconds, does not fit into 64 bits.
std::optional<std::int64_t> toMilliseconds(std::string_view fraction) {
  constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max() / 1'000'000;
  if (!isInteger(fraction)) return 0;
  return toIntegerWithin(fraction, -kMost, kMost);
}

struct DateAndTime {
  std::int64_t month;
  std::int64_t day;
  std::int64_t hour;
  std::int64_t minute;
  std::int64_t second;
  std::int64_t milliseconds;
};

// Sets the second and the milliseconds of `result`. Returns false if either is out of range.
bool readSeconds(std::string_view text, DateAndTime& result) {
  const auto second = toIntegerWithin(text.substr(0, findCharacter(text, '.')), 0, 61);
  const auto pieces = splitInto<2>(text, '.');
  const auto milliseconds = pieces ? toMilliseconds((*pieces)[1]) : 0;
  if (!second || !milliseconds) return false;
  result.second = *second;
  result.milliseconds = *milliseconds;
  return true;
}

std::optional<DateAndTime> readDateAndTime(std::string_view dateField, std::string_view timeField) {
  const auto date = splitInto<2>(dateField, '-');
  const auto time = splitInto<3>(timeField, ':');
  if (!date || !time) return std::nullopt;
  const auto month = toIntegerWithin((*date)[0], 1, 12);
  const auto day = toIntegerWithin((*date)[1], 1, 31);
  const auto hour = toIntegerWithin((*time)[0], 0, 23);
  const auto minute = toIntegerWithin((*time)[1], 0, 59);
  if (!month || !day || !hour || !minute) return std::nullopt;
  DateAndTime result{*month, *day, *hour, *minute, 0, 0};
  if (!readSeconds((*time)[2], result)) return std::nullopt;
  return result;
}

// Returns the two-digit number at `at`. Without two digits there, returns a number too large for
// any field of a time.
std::int64_t twoDigits(std::string_view text, std::size_t at) {
  constexpr std::int64_t kNone = 100;
  return isDigit(text[at]) && isDigit(text[at + 1]) ? (text[at] - '0') * 10 + (text[at + 1] - '0')
                                                    : kNone;
}

// The time of a line in the form that logcat prints, "MM-DD hh:mm:ss.mmm ".
constexpr std::size_t kUsualTimeSize = 19;

// Returns the milliseconds of a time in the usual form. `text` must hold kUsualTimeSize bytes.
std::optional<std::int64_t> usualMilliseconds(std::string_view text) {
  const auto centiseconds = twoDigits(text, 15);
  const bool hasForm =
      text[14] == '.' && centiseconds <= 99 && isDigit(text[17]) && text[18] == ' ';
  return hasForm ? std::optional(centiseconds * 10 + (text[17] - '0')) : std::nullopt;
}

// Reads the first two fields if they have the usual form. Absent for any other form, even a valid
// one.
std::optional<DateAndTime> usualDateAndTime(std::string_view text) {
  if (text.size() <= kUsualTimeSize || !isCharacter(text, kUsualTimeSize - 1, ' ')) {
    return std::nullopt;
  }
  const auto milliseconds = usualMilliseconds(text);
  if (!milliseconds || text[2] != '-' || text[5] != ' ' || text[8] != ':' || text[11] != ':') {
    return std::nullopt;
  }
  const DateAndTime result{twoDigits(text, 0), twoDigits(text, 3),  twoDigits(text, 6),
                           twoDigits(text, 9), twoDigits(text, 12), *milliseconds};
  const bool isInRange = result.month >= 1 && result.month <= 12 && result.day >= 1 &&
                         result.day <= 31 && result.hour <= 23 && result.minute <= 59 &&
                         result.second <= 61;
  return isInRange ? std::optional(result) : std::nullopt;
}

std::optional<DateAndTime> takeDateAndTime(std::string_view& text) {
  if (const auto usual = usualDateAndTime(text)) {
    text.remove_prefix(kUsualTimeSize);
    return usual;
  }
  const auto date = takeField(text);
  return readDateAndTime(date, takeField(text));
}

// Returns the whole seconds since 1970-01-01T00:00:00Z, without the milliseconds.
std::int64_t toSeconds(const DateAndTime& time, std::int64_t year, LocalTimeZone& zone) {
  return zone.secondsSinceEpoch({year, static_cast<unsigned>(time.month),
                                 static_cast<unsigned>(time.day), time.hour, time.minute,
                                 time.second});
}

Timestamp toTimestamp(std::int64_t seconds, std::int64_t milliseconds) {
  // A single division of whole numbers gives the double nearest to the exact millisecond.
  const auto whole = static_cast<double>(seconds * 1000 + milliseconds);
  return Timestamp(std::chrono::duration<double>(whole / 1000));
}

std::optional<RuneflowLogLevel> toLevel(std::string_view field) {
  using enum RuneflowLogLevel;
  constexpr std::string_view kLetters = "VDISWEFA";
  constexpr std::array kLevels{Trace, Debug, Info, Info, Warning, Error, Fatal, Fatal};
  if (field.size() != 1) return std::nullopt;
  const auto at = kLetters.find(field[0]);
  return at == std::string_view::npos ? std::nullopt : std::optional(kLevels[at]);
}

bool isNumericText(std::string_view text) {
  if (std::ranges::all_of(text, isDigit)) return true;
  unicode::CharacterReader characters(text);
  for (auto c = characters.next(); !c.empty(); c = characters.next()) {
    if (!unicode::isNumeric(c)) return false;
  }
  return true;
}

std::string_view trimAsciiBlanks(std::string_view text) {
  const auto isBlank = [](char c) { return c == ' ' || c == '\t'; };
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  return text;
}

std::string_view trimBlanks(std::string_view text) {
  return unicode::isAscii(text) ? trimAsciiBlanks(text) : unicode::trim(text, unicode::isBlank);
}

std::size_t findColonSpace(std::string_view text) {
  for (auto at = text.find(": "); at != std::string_view::npos; at = text.find(": ", at + 1)) {
    if (unicode::standsAlone(text, at) && unicode::standsAlone(text, at + 1)) return at;
  }
  return std::string_view::npos;
}

struct TagAndMessage {
  std::string_view tag;
  std::string_view message;
};

TagAndMessage splitRemainder(std::string_view text) {
  if (const auto at = findColonSpace(text); at != std::string_view::npos) {
    return {trimBlanks(text.substr(0, at)), text.substr(at + 2)};
  }
  if (const auto colon = findCharacter(text, ':'); colon != std::string_view::npos) {
    return {trimBlanks(text.substr(0, colon)), trimBlanks(text.substr(colon + 1))};
  }
  return {{}, text};
}

// Removes the next field, which must hold digits only, from an ASCII text and returns it. Returns
// an empty view if it holds anything else or if no space follows it.
std::string_view takeDigits(std::string_view& text) {
  std::size_t start = 0;
  while (start < text.size() && text[start] == ' ') ++start;
  std::size_t end = start;
  while (end < text.size() && isDigit(text[end])) ++end;
  if (end == text.size() || text[end] != ' ') return {};
  const auto digits = text.substr(start, end - start);
  text.remove_prefix(end);
  return digits;
}

}  // namespace

std::optional<LogcatLine> LogcatLineReader::read(std::string_view line) {
  auto text = line;
  const auto time = takeDateAndTime(text);
  if (!time) return std::nullopt;
  const auto pid = takeField(text);
  const auto tid = takeField(text);
  const auto level = toLevel(takeField(text));
  if (!level || !isNumericText(pid) || !isNumericText(tid)) return std::nullopt;
  skipSpaces(text);
  const auto [tag, message] = splitRemainder(text);
  const auto timestamp = toTimestamp(toSeconds(*time, year_, zone_), time->milliseconds);
  return LogcatLine{timestamp, *level, tag, pid, tid, message};
}

std::optional<LogcatLine> LogcatLineReader::readUsual(std::string_view line) {
  // In an ASCII line without a line feed, every byte is a character of its own.
  if (line.size() <= kUsualTimeSize || !unicode::isAscii(line)) return std::nullopt;
  if (!rememberSecond(line)) return std::nullopt;
  const auto milliseconds = usualMilliseconds(line);
  if (!milliseconds) return std::nullopt;

  auto text = line.substr(kUsualTimeSize);
  const auto pid = takeDigits(text);
  const auto tid = takeDigits(text);
  if (pid.empty() || tid.empty()) return std::nullopt;
  const auto levelAt = text.find_first_not_of(' ');
  if (levelAt == std::string_view::npos) return std::nullopt;
  const auto level = toLevel(text.substr(levelAt, 1));
  text.remove_prefix(levelAt + 1);
  if (!level || !text.starts_with(' ')) return std::nullopt;
  const auto colon = text.find(": ");
  if (colon == std::string_view::npos) return std::nullopt;
  return LogcatLine{toTimestamp(lastSecond_, *milliseconds),
                    *level,
                    trimAsciiBlanks(text.substr(0, colon)),
                    pid,
                    tid,
                    text.substr(colon + 2)};
}

// Sets `lastSecond_` to the second of the line, which has at least kUsualTimeSize bytes. Returns
// false if the line does not begin with a time in the usual form.
bool LogcatLineReader::rememberSecond(std::string_view line) {
  if (std::memcmp(line.data(), lastSecondText_.data(), kSecondSize) == 0) return true;
  const auto time = usualDateAndTime(line);
  if (!time) return false;
  lastSecond_ = toSeconds(*time, year_, zone_);
  line.copy(lastSecondText_.data(), kSecondSize);
  return true;
}

}  // namespace runeflow
