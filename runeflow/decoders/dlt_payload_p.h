// The payload of a DLT message as text. Every reader here stays inside the bytes it is given.
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

// Messages are written here first, so that a row allocates its text once and at its exact size.
using TextBuffer = fmt::memory_buffer;

// The number that `bytes` begins with; there must be enough of them.
template <std::unsigned_integral T>
T load(Bytes bytes, std::endian order) {
  T value{};
  std::memcpy(&value, bytes.data(), sizeof value);
  return order == std::endian::native ? value : std::byteswap(value);
}

inline std::string_view asText(Bytes bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// The arguments' texts joined by single spaces. `argumentCount` 0 means as many as there are. What
// cannot be read ends the text with a hex preview of the bytes behind its type info.
void appendVerbose(TextBuffer& text, Bytes payload, unsigned argumentCount, std::endian order);

// The message ID, and the number of the bytes behind it, which only the sender's own description
// could explain.
void appendNonVerbose(TextBuffer& text, Bytes payload, std::endian order);

// "0a ff"; at most 64 bytes, with an ellipsis for the rest.
void appendHexPreview(TextBuffer& text, Bytes bytes);

}  // namespace runeflow::dlt
