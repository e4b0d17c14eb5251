// SPDX-License-Identifier: MIT

#include "fleet/row_binary.h"

#include <utility>

namespace fleet {

void appendLength(std::string& bytes, std::uint64_t length) {
  constexpr unsigned kMore = 0x80;
  for (; length >= kMore; length >>= 7U) bytes += static_cast<char>((length & 0x7FU) | kMore);
  bytes += static_cast<char>(length);
}

void appendText(std::string& bytes, std::string_view text) {
  appendLength(bytes, text.size());
  bytes += text;
}

void appendNullableText(std::string& bytes, std::optional<std::string_view> text) {
  bytes += text ? '\0' : '\1';
  if (text) appendText(bytes, *text);
}

std::uint64_t RowBinaryReader::integer(std::size_t bytes) {
  if (rest_.size() < bytes) {
    isShort_ = true;
    rest_ = {};
    return 0;
  }
  std::uint64_t value = 0;
  for (std::size_t i = bytes; i > 0; --i) {
    value = value << 8U | static_cast<unsigned char>(rest_[i - 1]);
  }
  rest_.remove_prefix(bytes);
  return value;
}

std::uint64_t RowBinaryReader::length() {
  constexpr unsigned kMostBits = 63;
  std::uint64_t value = 0;
  for (unsigned shift = 0; shift < kMostBits; shift += 7) {
    const std::uint64_t byte = integer(1);
    value |= (byte & 0x7FU) << shift;
    if (byte < 0x80U) return value;
  }
  isShort_ = true;
  rest_ = {};
  return 0;
}

std::string_view RowBinaryReader::text() {
  const auto size = length();
  if (rest_.size() < size) {
    isShort_ = true;
    rest_ = {};
    return {};
  }
  const auto text = rest_.substr(0, size);
  rest_.remove_prefix(size);
  return text;
}

std::optional<std::string_view> RowBinaryReader::nullableText() {
  if (uint8() != 0) return std::nullopt;
  return text();
}

std::vector<std::string_view> RowBinaryReader::texts() {
  std::vector<std::string_view> texts;
  // The announced number is not believed: the list grows with the bytes that are there.
  for (auto left = length(); left > 0 && !isShort_; --left) texts.push_back(text());
  return texts;
}

void RowBinaryStream::append(std::string_view piece) {
  pending_ += piece;
  if (pending_.size() >= wanted_) readRows();
}

bool RowBinaryStream::finish() {
  readRows();
  return pending_.empty();
}

void RowBinaryStream::readRows() {
  std::string_view rest = pending_;
  while (!rest.empty()) {
    RowBinaryReader reader(rest);
    readRow_(reader);
    if (reader.isShort()) break;
    rest = reader.rest();
  }
  pending_.erase(0, pending_.size() - rest.size());
  // A long row that arrives in many pieces is tried again only when it has doubled.
  wanted_ = pending_.size() * 2;
}

}  // namespace fleet
