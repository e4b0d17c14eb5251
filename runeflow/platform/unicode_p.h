// Text as its reader sees it: user-perceived characters, white space, letter case, and UTF-8
// repair.
//
// Everything here follows the Unicode properties as ICU implements them, with a byte-wise road for
// ASCII in front. A "character" is an extended grapheme cluster (UAX #29): "e" with a combining
// accent, an emoji with its modifiers and CR LF are one character each. All functions may run on
// any thread.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace runeflow::unicode {

bool isAscii(std::string_view bytes);

bool isValidUtf8(std::string_view bytes);

// The bytes as UTF-8 text; every maximal subpart of an ill-formed sequence becomes one U+FFFD.
std::string decodeLossily(std::string_view bytes);

// Full case folding without regard to locale.
bool equalsIgnoringCase(std::string_view a, std::string_view b);

std::string toLower(std::string_view text);

// Walks a text character by character. The text must outlive the reader.
class CharacterReader {
 public:
  explicit CharacterReader(std::string_view text);
  ~CharacterReader();
  CharacterReader(const CharacterReader&) = delete;
  CharacterReader& operator=(const CharacterReader&) = delete;

  // The next character as a part of the text; empty at its end.
  std::string_view next();

 private:
  struct Segment;
  static std::unique_ptr<Segment>& spareSegment();
  std::size_t nextLength();
  std::size_t segmentEnd() const;

  std::string_view text_;
  std::size_t position_ = 0;
  // The stretch around non-ASCII bytes that ICU is asked about, [segmentStart_, segmentEnd_).
  std::size_t segmentStart_ = 0;
  std::size_t segmentEnd_ = 0;
  std::unique_ptr<Segment> segment_;
};

// A character has the property of the code point that it begins with, as a base letter with accents
// is still that letter.
bool isWhiteSpace(std::string_view character);  // property White_Space
bool isNumeric(std::string_view character);     // property Numeric_Type is not None

// A tab or a space separator (general category Zs) that carries no mark.
bool isBlank(std::string_view character);

inline bool isAsciiByte(char byte) {
  return static_cast<unsigned char>(byte) < 0x80;
}

// standsAlone beside a byte that is not ASCII.
bool standsAloneBesideNonAscii(std::string_view text, std::size_t position);

// True when the printable ASCII byte at `position` of a valid UTF-8 text is a character by itself,
// neither carrying a combining mark nor joined to what stands before it.
inline bool standsAlone(std::string_view text, std::size_t position) {
  const bool isFree = (position == 0 || isAsciiByte(text[position - 1])) &&
                      (position + 1 >= text.size() || isAsciiByte(text[position + 1]));
  return isFree || standsAloneBesideNonAscii(text, position);
}

// The pieces between white-space characters, empty ones dropped. Views into `text`.
std::vector<std::string_view> words(std::string_view text);

// `text` without the characters at its ends for which `isTrimmed` holds. A view into `text`.
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
