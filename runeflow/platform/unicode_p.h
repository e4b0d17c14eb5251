// SPDX-License-Identifier: MIT

// Unicode text: user-perceived characters, white space, letter case, and repair of invalid UTF-8.
//
// All functions follow the Unicode properties as ICU implements them. Validation, comparison and
// the splitting into characters handle ASCII text without calling ICU. A "character" is an extended
// grapheme cluster (UAX #29): "e" with a combining accent, an emoji with its modifiers and CR LF
// are one character each. All functions may be called from any thread.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace runeflow::unicode {

bool isAscii(std::string_view bytes);

bool isValidUtf8(std::string_view bytes);

// Returns `bytes` as valid UTF-8. Each maximal subpart of an ill-formed sequence (Unicode Standard,
// section 3.9) becomes one U+FFFD.
std::string decodeLossily(std::string_view bytes);

// Compares with full case folding, independent of the locale.
bool equalsIgnoringCase(std::string_view a, std::string_view b);

// Uses the full lower-case mapping, independent of the locale.
std::string toLower(std::string_view text);

// Splits a text into its characters. The caller must keep the text alive while the reader is used.
// Two threads must not use the same reader at the same time.
class CharacterReader {
 public:
  explicit CharacterReader(std::string_view text);
  ~CharacterReader();
  CharacterReader(const CharacterReader&) = delete;
  CharacterReader& operator=(const CharacterReader&) = delete;

  // Returns the next character as a view into the text, or an empty view at the end of the text.
  std::string_view next();

 private:
  struct Segment;
  static std::unique_ptr<Segment>& spareSegment();
  std::size_t nextLength();
  std::size_t segmentEnd() const;

  std::string_view text_;
  std::size_t position_ = 0;
  // The part of the text, around non-ASCII bytes, that `segment_` has passed to ICU. Half-open.
  std::size_t segmentStart_ = 0;
  std::size_t segmentEnd_ = 0;
  std::unique_ptr<Segment> segment_;
};

// These two test the first code point of the character, because a base letter with accents has the
// properties of the letter.
bool isWhiteSpace(std::string_view character);  // property White_Space
bool isNumeric(std::string_view character);     // property Numeric_Type is not None

// Returns true for a tab, and for a space separator (general category Zs) without combining marks.
bool isBlank(std::string_view character);

inline bool isAsciiByte(char byte) {
  return static_cast<unsigned char>(byte) < 0x80;
}

// The slow path of standsAlone(), for a position next to a byte that is not ASCII.
bool standsAloneBesideNonAscii(std::string_view text, std::size_t position);

// Returns true if the printable ASCII byte at `position` is a complete character: no combining mark
// follows it, and the code point before it does not join it. `text` must be valid UTF-8.
inline bool standsAlone(std::string_view text, std::size_t position) {
  const bool isFree = (position == 0 || isAsciiByte(text[position - 1])) &&
                      (position + 1 >= text.size() || isAsciiByte(text[position + 1]));
  return isFree || standsAloneBesideNonAscii(text, position);
}

// Returns the non-empty pieces of `text` between white-space characters, as views into `text`.
std::vector<std::string_view> words(std::string_view text);

// Returns `text` without the leading and trailing characters for which `isTrimmed` returns true, as
// a view into `text`.
template <class Predicate>
std::string_view trim(std::string_view text, Predicate isTrimmed) {
  CharacterReader characters(text);
  std::size_t position = 0;
  std::size_t first = std::string_view::npos;
  std::size_t last = 0;
  for (auto character = characters.next(); !character.empty(); character = characters.next()) {
    if (!isTrimmed(character)) {
      if (first == std::string_view::npos) first = position;
      last = position + character.size();
    }
    position += character.size();
  }
  return first == std::string_view::npos ? std::string_view{} : text.substr(first, last - first);
}

std::string_view trimWhiteSpace(std::string_view text);

}  // namespace runeflow::unicode
