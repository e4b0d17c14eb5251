// SPDX-License-Identifier: MIT

// Formats the payload of a DLT message as text. No function here reads beyond the bytes that it is
// given, except load(), whose caller checks the size.
#pragma once

#include <fmt/format.h>

#include <bit>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

namespace runeflow::dlt {

using Bytes = std::span<const std::uint8_t>;

// Collects the text of a message, so that the record allocates it once and at its exact size.
using TextBuffer = fmt::memory_buffer;

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
