// SPDX-License-Identifier: MIT
#include "runeflow/decoders/logcat_decoder.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <optional>
#include <utility>

#include "runeflow/platform/local_time_p.h"
#include "runeflow/platform/unicode_p.h"

namespace runeflow {
namespace {

constexpr std::size_t kMostRowsReserved = 4096;
constexpr std::size_t kLargestIdleCarry = std::size_t{1} << 20;

std::string_view asText(std::span<const std::uint8_t> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// The fields of one line. The texts are views into the line.
struct Parsed {
  Timestamp timestamp;
  std::string_view pid;
  std::string_view tid;
  RuneflowLogLevel level;
  std::string_view tag;
  std::string_view message;
};

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

// Reads the first two fields in the exact form that logcat prints, "MM-DD hh:mm:ss.mmm ", and
// removes them from `text`. Returns nothing and leaves `text` unchanged if they have any other
// form, even a valid one.
std::optional<DateAndTime> takeUsualDateAndTime(std::string_view& text) {
  constexpr std::size_t kSize = 19;
  if (text.size() <= kSize) return std::nullopt;
  const bool hasForm = text[2] == '-' && text[5] == ' ' && text[8] == ':' && text[11] == ':' &&
                       text[14] == '.' && isDigit(text[17]) && isCharacter(text, kSize - 1, ' ');
  if (!hasForm) return std::nullopt;
  const auto centiseconds = twoDigits(text, 15);
  const DateAndTime result{twoDigits(text, 0),  twoDigits(text, 3),
                           twoDigits(text, 6),  twoDigits(text, 9),
                           twoDigits(text, 12), centiseconds * 10 + (text[17] - '0')};
  const bool isInRange = result.month >= 1 && result.month <= 12 && result.day >= 1 &&
                         result.day <= 31 && result.hour <= 23 && result.minute <= 59 &&
                         result.second <= 61 && centiseconds <= 99;
  if (!isInRange) return std::nullopt;
  text.remove_prefix(kSize);
  return result;
}

std::optional<DateAndTime> takeDateAndTime(std::string_view& text) {
  if (const auto usual = takeUsualDateAndTime(text)) return usual;
  const auto date = takeField(text);
  return readDateAndTime(date, takeField(text));
}

Timestamp toTimestamp(const DateAndTime& time, std::int64_t year, LocalTimeZone& zone) {
  const auto whole = zone.secondsSinceEpoch({year, static_cast<unsigned>(time.month),
                                             static_cast<unsigned>(time.day), time.hour,
                                             time.minute, time.second});
  // A single division of whole numbers gives the double nearest to the exact millisecond.
  const auto milliseconds = static_cast<double>(whole * 1000 + time.milliseconds);
  return Timestamp(std::chrono::duration<double>(milliseconds / 1000));
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

std::string_view trimBlanks(std::string_view text) {
  const auto isBlankByte = [](char c) { return c == ' ' || c == '\t'; };
  if (!unicode::isAscii(text)) return unicode::trim(text, unicode::isBlank);
  while (!text.empty() && isBlankByte(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlankByte(text.back())) text.remove_suffix(1);
  return text;
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

std::optional<Parsed> parse(std::string_view text, std::int64_t year, LocalTimeZone& zone) {
  const auto time = takeDateAndTime(text);
  if (!time) return std::nullopt;
  const auto pid = takeField(text);
  const auto tid = takeField(text);
  const auto level = toLevel(takeField(text));
  if (!level || !isNumericText(pid) || !isNumericText(tid)) return std::nullopt;
  skipSpaces(text);
  const auto [tag, message] = splitRemainder(text);
  return Parsed{toTimestamp(*time, year, zone), pid, tid, *level, tag, message};
}

// Calls `use` with every complete line except empty lines and banners, without its line end, until
// `use` returns false. Returns the number of bytes up to and including the last line feed found.
template <class Use>
std::size_t forEachLine(std::string_view bytes, Use use) {
  std::size_t start = 0;
  for (auto end = bytes.find('\n'); end != std::string_view::npos; end = bytes.find('\n', start)) {
    auto line = bytes.substr(start, end - start);
    start = end + 1;
    if (line.ends_with('\r')) line.remove_suffix(1);
    if (line.empty() || line.front() == '-') continue;
    if (!use(line)) break;
  }
  return start;
}

}  // namespace

LogcatDecoder::LogcatDecoder(Clock now)
    : now_(std::move(now)),
      year_(localYear(now_().time_since_epoch().count())),
      zone_(std::make_unique<LocalTimeZone>()) {}

LogcatDecoder::~LogcatDecoder() = default;

std::vector<LogRow> LogcatDecoder::consume(std::span<const std::uint8_t> bytes) {
  std::vector<LogRow> rows;
  auto input = asText(bytes);
  rows.reserve(expectedRows_);
  const auto append = [&](std::string_view line) {
    appendLine(line, rows);
    return true;
  };
  if (!carry_.empty()) {
    // Only the new bytes are searched, because the carry holds no line feed.
    const auto end = input.find('\n');
    const auto restOfLine = input.substr(0, end == std::string_view::npos ? end : end + 1);
    carry_ += restOfLine;
    if (end == std::string_view::npos) return rows;
    forEachLine(carry_, append);
    carry_.clear();
    if (carry_.capacity() > kLargestIdleCarry) carry_.shrink_to_fit();
    input.remove_prefix(restOfLine.size());
  }
  carry_ = input.substr(forEachLine(input, append));
  expectedRows_ = std::min(kMostRowsReserved, rows.size() + rows.size() / 8);
  return rows;
}

void LogcatDecoder::appendLine(std::string_view line, std::vector<LogRow>& rows) {
  if (unicode::isValidUtf8(line)) {
    appendRow(line, rows);
  } else {
    appendRow(unicode::decodeLossily(line), rows);
  }
}

void LogcatDecoder::appendRow(std::string_view text, std::vector<LogRow>& rows) {
  const auto parsed = parse(text, year_, *zone_);
  if (!parsed) {
    rows.emplace_back(now_(), RuneflowLogLevel::Info, text, std::nullopt, LogRow::Slots());
    return;
  }
  rows.emplace_back(parsed->timestamp, parsed->level, parsed->message, std::nullopt,
                    LogRow::Slots{parsed->tag, parsed->pid, parsed->tid});
}

bool LogcatDecoder::looksLikeThreadtime(std::span<const std::uint8_t> bytes) {
  constexpr std::int64_t kLeapYear = 2000;  // 29 February needs no rollover
  LocalTimeZone zone;
  bool found = false;
  forEachLine(asText(bytes.first(std::min(bytes.size(), sampleSize))), [&](std::string_view line) {
    found = parse(unicode::decodeLossily(line), kLeapYear, zone).has_value();
    return !found;
  });
  return found;
}

}  // namespace runeflow
