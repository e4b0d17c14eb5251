// SPDX-License-Identifier: MIT

// Writes and reads ClickHouse's format RowBinary: the values of a row one after the other, integers
// in little-endian order, texts and arrays after their length as a LEB128 number, and a byte that
// is 1 for NULL before a value that may be NULL. Texts are bytes: nothing in them needs an escape.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace fleet {

// Append a value to a text.
void appendLength(std::string& bytes, std::uint64_t length);  // of a text or an array
void appendText(std::string& bytes, std::string_view text);
void appendNullableText(std::string& bytes, std::optional<std::string_view> text);
template <std::integral Integer>
void appendInteger(std::string& bytes, Integer value) {
  auto rest = static_cast<std::make_unsigned_t<Integer>>(value);
  for (std::size_t i = 0; i < sizeof(Integer); ++i) {
    bytes += static_cast<char>(rest & 0xFFU);
    if constexpr (sizeof(Integer) > 1) rest >>= 8U;
  }
}

// Takes values off the front of a text. After a read beyond the end, isShort() returns true and all
// further values are empty.
class RowBinaryReader {
 public:
  explicit RowBinaryReader(std::string_view bytes) : rest_(bytes) {}

  std::uint8_t uint8() { return static_cast<std::uint8_t>(integer(1)); }
  std::uint32_t uint32() { return static_cast<std::uint32_t>(integer(4)); }
  std::uint64_t uint64() { return integer(8); }
  std::int64_t int64() { return static_cast<std::int64_t>(integer(8)); }
  std::string_view text();
  std::optional<std::string_view> nullableText();
  std::vector<std::string_view> texts();

  bool isShort() const { return isShort_; }
  std::string_view rest() const { return rest_; }

 private:
  std::uint64_t integer(std::size_t bytes);
  std::uint64_t length();

  std::string_view rest_;
  bool isShort_ = false;
};

// Cuts a stream that arrives in pieces into rows.
class RowBinaryStream {
 public:
  // Reads one row, or finds that the reader is short; then it is called again with more bytes.
  using ReadRow = std::function<void(RowBinaryReader&)>;

  explicit RowBinaryStream(ReadRow readRow) : readRow_(std::move(readRow)) {}

  void append(std::string_view piece);

  // Reads what is left after the last piece. Returns whether the stream ended with a row.
  bool finish();

 private:
  void readRows();

  ReadRow readRow_;
  std::string pending_;
  std::size_t wanted_ = 0;  // a row was short with fewer bytes than this
};

}  // namespace fleet
