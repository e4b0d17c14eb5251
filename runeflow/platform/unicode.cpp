// SPDX-License-Identifier: MIT
#include <unicode/locid.h>
#include <unicode/ubrk.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utext.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>

#include "runeflow/platform/unicode_p.h"

namespace runeflow::unicode {
namespace {

// ICU's lengths have 32 bits. CharacterReader passes longer texts to ICU in several segments.
// equalsIgnoringCase() and toLower() ignore the bytes after the first GiB: they serve names, which
// are never that long.
constexpr std::size_t kLargestSegment = std::size_t{1} << 30;

std::int32_t icuLength(std::string_view text) {
  return static_cast<std::int32_t>(std::min(text.size(), kLargestSegment));
}

icu::UnicodeString utf16(std::string_view text) {
  return icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), icuLength(text)));
}

// ICU's UTF-8 macros contain implicit conversions between integer types.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
#pragma GCC diagnostic ignored "-Wsign-conversion"
// NOLINTBEGIN(bugprone-inc-dec-in-conditions)

// Returns the code point at `index`, or a negative number for a maximal subpart of an ill-formed
// sequence. Advances `index` past the bytes it has read.
UChar32 decodeNext(std::string_view bytes, std::size_t& index) {
  const auto length = static_cast<std::int64_t>(bytes.size());
  auto position = static_cast<std::int64_t>(index);
  UChar32 codePoint = 0;
  U8_NEXT(bytes.data(), position, length, codePoint);
  index = static_cast<std::size_t>(position);
  return codePoint;
}

UChar32 lastCodePoint(std::string_view text) {
  const auto tail = text.substr(text.size() - std::min<std::size_t>(text.size(), U8_MAX_LENGTH));
  auto position = static_cast<std::int32_t>(tail.size());
  UChar32 codePoint = 0;
  U8_PREV_OR_FFFD(tail.data(), 0, position, codePoint);
  return codePoint;
}

// NOLINTEND(bugprone-inc-dec-in-conditions)
#pragma GCC diagnostic pop

// Returns 0 (NUL) for an ill-formed sequence. NUL has none of the properties tested here.
UChar32 firstCodePoint(std::string_view text) {
  std::size_t index = 0;
  return std::max(decodeNext(text, index), 0);
}

int graphemeClusterBreak(UChar32 codePoint) {
  return u_getIntPropertyValue(codePoint, UCHAR_GRAPHEME_CLUSTER_BREAK);
}

bool extendsWhatPrecedes(std::string_view rest) {
  const int kind = graphemeClusterBreak(firstCodePoint(rest));
  return kind == U_GCB_EXTEND || kind == U_GCB_SPACING_MARK || kind == U_GCB_ZWJ;
}

bool joinsWhatFollows(std::string_view before) {
  return graphemeClusterBreak(lastCodePoint(before)) == U_GCB_PREPEND;
}

}  // namespace

bool isAscii(std::string_view bytes) {
  constexpr std::uint64_t kHighBits = 0x8080'8080'8080'8080;
  std::uint64_t seen = 0;
  const auto look = [&](std::size_t at) {
    std::uint64_t word = 0;
    std::memcpy(&word, bytes.data() + at, sizeof word);
    seen |= word;
  };
  std::size_t at = 0;
  for (; at + sizeof seen <= bytes.size(); at += sizeof seen) look(at);
  if (bytes.size() >= sizeof seen) {
    look(bytes.size() - sizeof seen);  // the last bytes, some of them for the second time
  } else {
    for (; at < bytes.size(); ++at) seen |= static_cast<unsigned char>(bytes[at]);
  }
  return (seen & kHighBits) == 0;
}

bool isValidUtf8(std::string_view bytes) {
  if (isAscii(bytes)) return true;
  for (std::size_t index = 0; index < bytes.size();) {
    if (decodeNext(bytes, index) < 0) return false;
  }
  return true;
}

std::string decodeLossily(std::string_view bytes) {
  if (isValidUtf8(bytes)) return std::string(bytes);
  std::string text;
  text.reserve(bytes.size() + 2);
  for (std::size_t index = 0; index < bytes.size();) {
    const std::size_t start = index;
    if (decodeNext(bytes, index) < 0) {
      text += "\uFFFD";
    } else {
      text.append(bytes, start, index - start);
    }
  }
  return text;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (isAscii(a) && isAscii(b)) {
    const auto lower = [](char c) {
      return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
    };
    return std::ranges::equal(a, b, {}, lower, lower);
  }
  return utf16(a).caseCompare(utf16(b), U_FOLD_CASE_DEFAULT) == 0;
}

std::string toLower(std::string_view text) {
  std::string lower;
  return utf16(text).toLower(icu::Locale::getRoot()).toUTF8String(lower);
}

struct CharacterReader::Segment {
  UErrorCode status = U_ZERO_ERROR;
  UText text = UTEXT_INITIALIZER;
  std::unique_ptr<UBreakIterator, decltype(&ubrk_close)> breaks{
      ubrk_open(UBRK_CHARACTER, "", nullptr, 0, &status), ubrk_close};

  ~Segment() { utext_close(&text); }

  void set(std::string_view bytes) {
    utext_openUTF8(&text, bytes.data(), icuLength(bytes), &status);
    ubrk_setUText(breaks.get(), &text, &status);
  }
};

CharacterReader::CharacterReader(std::string_view text) : text_(text) {}

CharacterReader::~CharacterReader() {
  if (segment_) spareSegment() = std::move(segment_);
}

// Opening an ICU iterator costs more than iterating over a line. Each thread therefore keeps the
// iterator of the last destroyed reader for the next one.
std::unique_ptr<CharacterReader::Segment>& CharacterReader::spareSegment() {
  thread_local std::unique_ptr<Segment> spare;
  return spare;
}

std::string_view CharacterReader::next() {
  const std::size_t start = position_;
  if (start == text_.size()) return {};
  position_ += nextLength();
  return text_.substr(start, position_ - start);
}

std::size_t CharacterReader::nextLength() {
  if (position_ >= segmentEnd_) {
    const auto rest = text_.substr(position_, 2);
    if (isAscii(rest)) return rest == "\r\n" ? 2 : 1;
    if (!segment_) segment_ = std::move(spareSegment());
    if (!segment_) segment_ = std::make_unique<Segment>();
    segmentStart_ = position_;
    segmentEnd_ = segmentEnd();
    segment_->set(text_.substr(segmentStart_, segmentEnd_ - segmentStart_));
  }
  const std::int32_t end = U_SUCCESS(segment_->status) ? ubrk_next(segment_->breaks.get()) : -1;
  // If ICU's data files are missing, every byte counts as one character.
  return end < 0 ? 1 : segmentStart_ + static_cast<std::size_t>(end) - position_;
}

// A segment ends between two adjacent ASCII characters, because no grapheme cluster contains both.
// The only exception is CR LF.
std::size_t CharacterReader::segmentEnd() const {
  const std::size_t limit = std::min(text_.size(), position_ + kLargestSegment);
  for (std::size_t end = position_ + 1; end < limit; ++end) {
    if (isAsciiByte(text_[end - 1]) && isAsciiByte(text_[end]) &&
        text_.substr(end - 1, 2) != "\r\n") {
      return end;
    }
  }
  return limit;
}

bool isWhiteSpace(std::string_view character) {
  return !character.empty() && u_hasBinaryProperty(firstCodePoint(character), UCHAR_WHITE_SPACE);
}

bool isNumeric(std::string_view character) {
  return !character.empty() &&
         u_getIntPropertyValue(firstCodePoint(character), UCHAR_NUMERIC_TYPE) != U_NT_NONE;
}

bool isBlank(std::string_view character) {
  if (character == "\t") return true;
  std::size_t end = 0;
  if (character.empty()) return false;
  const auto codePoint = decodeNext(character, end);
  return end == character.size() && u_charType(codePoint) == U_SPACE_SEPARATOR;
}

bool standsAloneBesideNonAscii(std::string_view text, std::size_t position) {
  const std::size_t after = position + 1;
  if (after < text.size() && !isAsciiByte(text[after]) && extendsWhatPrecedes(text.substr(after))) {
    return false;
  }
  return position == 0 || isAsciiByte(text[position - 1]) ||
         !joinsWhatFollows(text.substr(0, position));
}

std::vector<std::string_view> words(std::string_view text) {
  std::vector<std::string_view> pieces;
  CharacterReader characters(text);
  std::size_t start = 0;
  std::size_t end = 0;
  const auto emit = [&] {
    if (end > start) pieces.push_back(text.substr(start, end - start));
  };
  for (auto character = characters.next(); !character.empty(); character = characters.next()) {
    if (isWhiteSpace(character)) {
      emit();
      start = end + character.size();
    }
    end += character.size();
  }
  emit();
  return pieces;
}

std::string_view trimWhiteSpace(std::string_view text) {
  return trim(text, isWhiteSpace);
}

}  // namespace runeflow::unicode
