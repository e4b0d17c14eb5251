// SPDX-License-Identifier: MIT

// Formats the payload of a DLT message as text. No function here reads beyond the bytes that it is
// given, except load(), whose caller checks the size.
#pragma once

#include <bit>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

#include "runeflow/decoders/text_buffer_p.h"

namespace runeflow::dlt {

using Bytes = std::span<const std::uint8_t>;

// Returns the number at the start of `bytes`, which must hold at least sizeof(T) bytes.
template <std::unsigned_integral T>
T load(Bytes bytes, std::endian order) {
  T value{};
  std::memcpy(&value, bytes.data(), sizeof value);
  return order == std::endian::native ? value : std::byteswap(value);
}

inline std::string_view asText(Bytes bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// Returns the largest number of bytes that one of the functions below appends for a payload of
// `size` bytes: three for each byte. A string needs them if each byte is invalid and becomes the
// three bytes of U+FFFD, and a hex preview has three characters for each byte. The text of a number
// or truth value is shorter than three times its type info (4 bytes) and its data.
constexpr std::size_t mostTextFor(std::size_t size) {
  constexpr std::size_t kNonVerbose = 64;  // "[non-verbose id=0x… … bytes]"; also an ellipsis
  return kNonVerbose + 3 * size;
}

// Appends the texts of the arguments, joined by single spaces. An `argumentCount` of 0 means all
// arguments that the payload holds. An argument that cannot be decoded ends the text. A hex preview
// of the bytes after its type info, if there are any, takes its place.
void appendVerbose(TextBuffer& text, Bytes payload, unsigned argumentCount, std::endian order);

// Appends the message ID and the number of bytes after it. Only the sender's own message
// description could decode those bytes.
void appendNonVerbose(TextBuffer& text, Bytes payload, std::endian order);

// Appends the bytes in hex ("0a ff"): at most the first 64, with an ellipsis for the rest.
void appendHexPreview(TextBuffer& text, Bytes bytes);

}  // namespace runeflow::dlt
