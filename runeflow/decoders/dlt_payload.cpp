// SPDX-License-Identifier: MIT
#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <iterator>
#include <optional>
#include <variant>

#include "runeflow/decoders/dlt_payload_p.h"
#include "runeflow/platform/overloaded_p.h"
#include "runeflow/platform/unicode_p.h"

namespace runeflow::dlt {
namespace {

// DLT type info of a verbose argument. The bits for arrays, fixed-point numbers, trace info,
// structures and string coding are ignored.
constexpr std::uint32_t kTypeLength = 0xf;  // TYLE: 1, 2, 3 and 4 mean 8, 16, 32 and 64 bits
constexpr std::uint32_t kBool = 1U << 4;
constexpr std::uint32_t kSigned = 1U << 5;
constexpr std::uint32_t kUnsigned = 1U << 6;
constexpr std::uint32_t kFloat = 1U << 7;
constexpr std::uint32_t kString = 1U << 9;
constexpr std::uint32_t kRaw = 1U << 10;
constexpr std::uint32_t kVariableInfo = 1U << 11;

constexpr std::size_t kPreviewBytes = 64;

struct String {
  Bytes bytes;
};
struct Raw {
  Bytes bytes;
};
using Value = std::variant<bool, std::uint64_t, std::int64_t, float, double, String, Raw>;

struct Argument {
  Value value;
  std::size_t size;  // bytes of its data, including a length field
};

std::uint64_t loadUnsigned(Bytes bytes, std::size_t size, std::endian order) {
  switch (size) {
    case 1:
      return bytes[0];
    case 2:
      return load<std::uint16_t>(bytes, order);
    case 4:
      return load<std::uint32_t>(bytes, order);
    default:
      return load<std::uint64_t>(bytes, order);
  }
}

std::int64_t signExtended(std::uint64_t value, std::size_t size) {
  const std::size_t unused = 64 - 8 * size;
  return static_cast<std::int64_t>(value << unused) >> unused;
}

std::optional<Argument> readNumber(std::uint32_t typeInfo, Bytes data, std::endian order) {
  const std::uint32_t typeLength = typeInfo & kTypeLength;
  if (typeLength < 1 || typeLength > 4) return std::nullopt;
  const std::size_t size = std::size_t{1} << (typeLength - 1);
  if (data.size() < size) return std::nullopt;

  const std::uint64_t bits = loadUnsigned(data, size, order);
  if (typeInfo & kUnsigned) return Argument{bits, size};
  if (typeInfo & kSigned) return Argument{signExtended(bits, size), size};
  if (!(typeInfo & kFloat)) return std::nullopt;
  if (size == 8) return Argument{std::bit_cast<double>(bits), size};
  if (size == 4) return Argument{std::bit_cast<float>(static_cast<std::uint32_t>(bits)), size};
  return std::nullopt;
}

std::optional<Argument> readText(std::uint32_t typeInfo, Bytes data, std::endian order) {
  constexpr std::size_t lengthSize = 2;
  if (data.size() < lengthSize) return std::nullopt;
  const std::size_t length = load<std::uint16_t>(data, order);
  if (data.size() - lengthSize < length) return std::nullopt;

  const Bytes content = data.subspan(lengthSize, length);
  const std::size_t size = lengthSize + length;
  if (typeInfo & kString) return Argument{String{content}, size};
  return Argument{Raw{content}, size};
}

std::optional<Argument> readArgument(std::uint32_t typeInfo, Bytes data, std::endian order) {
  if (typeInfo & kVariableInfo) return std::nullopt;  // its data begins with a name and a unit
  if (typeInfo & (kString | kRaw)) return readText(typeInfo, data, order);
  if (typeInfo & kBool) {  // one byte; TYLE and the number bits do not matter
    if (data.empty()) return std::nullopt;
    return Argument{data[0] != 0, 1};
  }
  return readNumber(typeInfo, data, order);
}

void append(TextBuffer& text, std::string_view part) {
  text.append(part.data(), part.data() + part.size());
}

void appendInteger(TextBuffer& text, std::integral auto number) {
  const fmt::format_int digits(number);
  text.append(digits.data(), digits.data() + digits.size());
}

// Appends the shortest text that reads back to the same value, independent of the locale. Whole
// numbers get a ".0" to distinguish them from integers.
void appendFloat(TextBuffer& text, std::floating_point auto number) {
  if (std::isnan(number)) return append(text, "nan");  // the sign of a NaN has no meaning

  // From kLargest on, fixed notation would show digits beyond the precision of the type; below
  // kSmallest it would show long runs of zeros.
  using Float = decltype(number);
  constexpr Float kSmallest{static_cast<Float>(1e-4)};
  constexpr Float kLargest{static_cast<Float>(sizeof(Float) == sizeof(float) ? 1 << 24 : 1e16)};
  const auto magnitude = std::abs(number);
  const bool ordinary = magnitude == 0 || (magnitude >= kSmallest && magnitude < kLargest);
  std::array<char, 32> digits;
  const auto end =
      std::to_chars(digits.begin(), digits.end(), number,
                    ordinary ? std::chars_format::fixed : std::chars_format::scientific)
          .ptr;
  text.append(digits.begin(), end);
  if (ordinary && std::find(digits.begin(), end, '.') == end) append(text, ".0");
}

void appendString(TextBuffer& text, Bytes bytes) {
  const std::string_view padded = asText(bytes);
  const std::string_view string = padded.substr(0, padded.find_last_not_of('\0') + 1);
  if (unicode::isValidUtf8(string)) return append(text, string);
  append(text, unicode::decodeLossily(string));
}

void appendValue(TextBuffer& text, const Value& value) {
  std::visit(overloaded{
                 [&](bool truth) { append(text, truth ? "true" : "false"); },
                 [&](std::uint64_t number) { appendInteger(text, number); },
                 [&](std::int64_t number) { appendInteger(text, number); },
                 [&](float number) { appendFloat(text, number); },
                 [&](double number) { appendFloat(text, number); },
                 [&](String string) { appendString(text, string.bytes); },
                 [&](Raw raw) { appendHexPreview(text, raw.bytes); },
             },
             value);
}

}  // namespace

void appendVerbose(TextBuffer& text, Bytes payload, unsigned argumentCount, std::endian order) {
  constexpr std::size_t typeInfoSize = 4;
  for (unsigned done = 0; argumentCount == 0 || done < argumentCount; ++done) {
    if (payload.size() < typeInfoSize) return;
    const auto typeInfo = load<std::uint32_t>(payload, order);
    const Bytes data = payload.subspan(typeInfoSize);
    const auto argument = readArgument(typeInfo, data, order);
    if (!argument && data.empty()) return;

    if (done > 0) text.push_back(' ');
    if (!argument) return appendHexPreview(text, data);
    appendValue(text, argument->value);
    payload = data.subspan(argument->size);
  }
}

void appendNonVerbose(TextBuffer& text, Bytes payload, std::endian order) {
  constexpr std::size_t idSize = 4;
  if (payload.size() < idSize) return append(text, "[non-verbose]");
  fmt::format_to(std::back_inserter(text), "[non-verbose id=0x{:x} {} bytes]",
                 load<std::uint32_t>(payload, order), payload.size() - idSize);
}

void appendHexPreview(TextBuffer& text, Bytes bytes) {
  constexpr std::string_view digits = "0123456789abcdef";
  const Bytes shown = bytes.first(std::min(bytes.size(), kPreviewBytes));
  for (std::size_t i = 0; i < shown.size(); ++i) {
    if (i > 0) text.push_back(' ');
    text.push_back(digits[shown[i] >> 4]);
    text.push_back(digits[shown[i] & 0xf]);
  }
  if (shown.size() < bytes.size()) append(text, " \u2026");
}

}  // namespace runeflow::dlt
