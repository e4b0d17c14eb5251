// SPDX-License-Identifier: MIT
#include "host/text_width.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <cstdint>

namespace host {
namespace {

constexpr char kEscape = '\x1b';
constexpr std::string_view kColoursOff = "\x1b[0m";

bool isPrintableAscii(char byte) {
  return byte >= ' ' && byte <= '~';
}

std::size_t columnsOf(UChar32 character) {
  if (character < 0x300) return 1;
  if ((U_GET_GC_MASK(character) & (U_GC_MN_MASK | U_GC_ME_MASK | U_GC_CF_MASK)) != 0) return 0;
  // Vowels and final consonants of Hangul join the consonant before them.
  constexpr UChar32 kFirstJamo = 0x1160;
  constexpr UChar32 kLastJamo = 0x11FF;
  if (character >= kFirstJamo && character <= kLastJamo) return 0;
  switch (u_getIntPropertyValue(character, UCHAR_EAST_ASIAN_WIDTH)) {
    case U_EA_FULLWIDTH:
    case U_EA_WIDE:
      return 2;
    default:
      return 1;
  }
}

// A character, or a colour, which takes no column.
struct Glyph {
  std::string_view bytes;
  std::size_t columns = 0;
  bool isColour = false;
};

// Takes the first glyph off `rest`, which is not empty.
Glyph takeGlyph(std::string_view& rest) {
  Glyph glyph;
  std::size_t size = 1;
  if (isPrintableAscii(rest.front())) {
    glyph.columns = 1;
  } else if (rest.front() == kEscape) {
    const auto end = rest.find('m');
    size = end == std::string_view::npos ? rest.size() : end + 1;
    glyph.isColour = true;
  } else {
    UChar32 character = 0;
    std::int64_t next = 0;
    const auto length = static_cast<std::int64_t>(rest.size());
    // ICU's UTF-8 macros contain implicit conversions between integer types.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
#pragma GCC diagnostic ignored "-Wsign-conversion"
    U8_NEXT(rest.data(), next, length, character);  // NOLINT(bugprone-inc-dec-in-conditions)
#pragma GCC diagnostic pop
    size = static_cast<std::size_t>(next);
    glyph.columns = character < 0 ? 1 : columnsOf(character);
  }
  glyph.bytes = rest.substr(0, size);
  rest.remove_prefix(size);
  return glyph;
}

// The text that is put into lines, and the line that is being filled.
class Wrapping {
 public:
  Wrapping(std::size_t begin, std::size_t indent, std::size_t width)
      : column_(begin), indent_(indent), width_(width) {}

  void add(const Glyph& glyph) {
    if (glyph.isColour) {
      colour_ = glyph.bytes == kColoursOff ? std::string_view() : glyph.bytes;
    } else if (column_ + glyph.columns > width_) {
      if (glyph.bytes == " ") return breakLine(text_.size());  // the break stands for the blank
      breakLine(isBreakable_ ? breakAt_ : text_.size());
    }
    text_ += glyph.bytes;
    column_ += glyph.columns;
    if (glyph.bytes == " ") {
      isBreakable_ = true;
      breakAt_ = text_.size();
      breakColumn_ = column_;
      breakColour_ = colour_;
    }
  }

  std::string take() && { return std::move(text_); }

 private:
  // Moves what stands behind `at`, the end of the text or a blank, to a new line.
  void breakLine(std::size_t at) {
    const bool isAtBlank = at < text_.size();
    const auto colour = isAtBlank ? breakColour_ : colour_;
    const auto moved = isAtBlank ? column_ - breakColumn_ : 0;
    std::string end(colour.empty() ? std::string_view() : kColoursOff);
    end += '\n';
    end.append(indent_, ' ');
    end += colour;
    text_.insert(at, end);
    column_ = indent_ + moved;
    isBreakable_ = false;
  }

  std::string text_;
  std::size_t column_;
  std::size_t indent_;
  std::size_t width_;
  std::string_view colour_;  // that is on
  bool isBreakable_ = false;
  std::size_t breakAt_ = 0;  // behind the last blank of the line
  std::size_t breakColumn_ = 0;
  std::string_view breakColour_;
};

}  // namespace

std::size_t columnsOf(std::string_view text) {
  std::size_t columns = 0;
  while (!text.empty()) columns += takeGlyph(text).columns;
  return columns;
}

std::size_t prefixWithin(std::string_view text, std::size_t columns) {
  std::size_t bytes = 0;
  std::size_t taken = 0;
  while (!text.empty()) {
    const auto glyph = takeGlyph(text);
    taken += glyph.columns;
    if (taken > columns) break;
    bytes += glyph.bytes.size();
  }
  return bytes;
}

std::string fitted(std::string_view text, std::size_t columns) {
  const auto taken = columnsOf(text);
  if (taken <= columns) return std::string(text) + std::string(columns - taken, ' ');
  if (columns == 0) return {};
  const auto prefix = text.substr(0, prefixWithin(text, columns - 1));
  return std::string(prefix) + "…" + std::string(columns - 1 - columnsOf(prefix), ' ');
}

std::string wrapped(std::string_view text, std::size_t begin, std::size_t indent,
                    std::size_t width) {
  constexpr std::size_t kFewestColumns = 8;
  if (indent + kFewestColumns > width || begin + kFewestColumns > width) return std::string(text);
  Wrapping wrapping(begin, indent, width);
  while (!text.empty()) wrapping.add(takeGlyph(text));
  return std::move(wrapping).take();
}

}  // namespace host
