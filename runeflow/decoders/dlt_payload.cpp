// SPDX-License-Identifier: MIT
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <optional>

#include "runeflow/decoders/dlt_payload_p.h"
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

void appendInteger(TextBuffer& text, std::integral auto number) {
  text.appendWith([&](char* first, char* last) { return std::to_chars(first, last, number).ptr; });
}

// Appends the shortest text that reads back to the same value, independent of the locale. Whole
// numbers get a ".0" to distinguish them from integers.
void appendFloat(TextBuffer& text, std::floating_point auto number) {
  if (std::isnan(number)) return text.append("nan");  // the sign of a NaN has no meaning

  // From kLargest on, fixed notation would show digits beyond the precision of the type; below
  // kSmallest it would show long runs of zeros.
  using Float = decltype(number);
  constexpr Float kSmallest{static_cast<Float>(1e-4)};
  constexpr Float kLargest{static_cast<Float>(sizeof(Float) == sizeof(float) ? 1 << 24 : 1e16)};
  const auto magnitude = std::abs(number);
  const bool ordinary = magnitude == 0 || (magnitude >= kSmallest && magnitude < kLargest);
  const auto format = ordinary ? std::chars_format::fixed : std::chars_format::scientific;
  const auto start = text.size();
  text.appendWith(
      [&](char* first, char* last) { return std::to_chars(first, last, number, format).ptr; });
  if (ordinary && !text.view().substr(start).contains('.')) text.append(".0");
}

void appendString(TextBuffer& text, Bytes bytes) {
  const std::string_view padded = asText(bytes);
  const std::string_view string = padded.substr(0, padded.find_last_not_of('\0') + 1);
  if (unicode::isValidUtf8(string)) return text.append(string);
  text.append(unicode::decodeLossily(string));
}

// The functions below append the text of one argument and return the size of its data, including a
// length field. They return nothing, and append nothing, if the argument cannot be decoded.

std::optional<std::size_t> appendText(TextBuffer& text, std::uint32_t typeInfo, Bytes data,
                                      std::endian order) {
  constexpr std::size_t lengthSize = 2;
  if (data.size() < lengthSize) return std::nullopt;
  const std::size_t length = load<std::uint16_t>(data, order);
  if (data.size() - lengthSize < length) return std::nullopt;

  const Bytes content = data.subspan(lengthSize, length);
  if (typeInfo & kString) {
    appendString(text, content);
  } else {
    appendHexPreview(text, content);
  }
  return lengthSize + length;
}

std::optional<std::size_t> appendNumber(TextBuffer& text, std::uint32_t typeInfo, Bytes data,
                                        std::endian order) {
  const std::uint32_t typeLength = typeInfo & kTypeLength;
  if (typeLength < 1 || typeLength > 4) return std::nullopt;
  const std::size_t size = std::size_t{1} << (typeLength - 1);
  if (data.size() < size) return std::nullopt;

  const std::uint64_t bits = loadUnsigned(data, size, order);
  if (typeInfo & kUnsigned) {
    if (size == 8) {
      appendInteger(text, bits);
    } else {
      appendInteger(text, static_cast<std::uint32_t>(bits));  // 32-bit divisions take half the time
    }
  } else if (typeInfo & kSigned) {
    appendInteger(text, signExtended(bits, size));
  } else if (typeInfo & kFloat && size == 8) {
    appendFloat(text, std::bit_cast<double>(bits));
  } else if (typeInfo & kFloat && size == 4) {
    appendFloat(text, std::bit_cast<float>(static_cast<std::uint32_t>(bits)));
  } else {
    return std::nullopt;
  }
  return size;
}

std::optional<std::size_t> appendArgument(TextBuffer& text, std::uint32_t typeInfo, Bytes data,
                                          std::endian order) {
  if (typeInfo & kVariableInfo) return std::nullopt;  // its data begins with a name and a unit
  if (typeInfo & (kString | kRaw)) return appendText(text, typeInfo, data, order);
  if (typeInfo & kBool) {  // one byte; TYLE and the number bits do not matter
    if (data.empty()) return std::nullopt;
    text.append(data[0] != 0 ? "true" : "false");
    return 1;
  }
  return appendNumber(text, typeInfo, data, order);
}

}  // namespace

void appendVerbose(TextBuffer& text, Bytes payload, unsigned argumentCount, std::endian order) {
  constexpr std::size_t typeInfoSize = 4;
  for (unsigned done = 0; argumentCount == 0 || done < argumentCount; ++done) {
    if (payload.size() < typeInfoSize) return;
    const auto typeInfo = load<std::uint32_t>(payload, order);
    const Bytes data = payload.subspan(typeInfoSize);
    const auto before = text.size();
    if (done > 0) text.append(' ');
    const auto size = appendArgument(text, typeInfo, data, order);
    if (!size) return data.empty() ? text.shrink(before) : appendHexPreview(text, data);
    payload = data.subspan(*size);
  }
}

void appendNonVerbose(TextBuffer& text, Bytes payload, std::endian order) {
  constexpr std::size_t idSize = 4;
  if (payload.size() < idSize) return text.append("[non-verbose]");
  text.appendWith([&](char* first, char*) {
    return fmt::format_to(first, "[non-verbose id=0x{:x} {} bytes]",
                          load<std::uint32_t>(payload, order), payload.size() - idSize);
  });
}

void appendHexPreview(TextBuffer& text, Bytes bytes) {
  constexpr std::string_view digits = "0123456789abcdef";
  const Bytes shown = bytes.first(std::min(bytes.size(), kPreviewBytes));
  for (std::size_t i = 0; i < shown.size(); ++i) {
    if (i > 0) text.append(' ');
    text.append(digits[shown[i] >> 4]);
    text.append(digits[shown[i] & 0xf]);
  }
  if (shown.size() < bytes.size()) text.append(" \u2026");
}

}  // namespace runeflow::dlt
