// SPDX-License-Identifier: MIT

// Generates a DLT recording for the benchmarks. All its messages have the same layout.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace bench {

using Bytes = std::span<const std::uint8_t>;

constexpr std::size_t kDltMessageSize = 127;
constexpr std::uint32_t kDltString = 1U << 9;      // type info, STRG
constexpr std::uint32_t kDltUint32 = 1U << 6 | 3;  // type info, UINT with TYLE 3

class DltRecording {
 public:
  explicit DltRecording(std::size_t messages) {
    bytes_.reserve(messages * kDltMessageSize);
    for (std::uint32_t i = 0; i < messages; ++i) addMessage(i);
  }
  const std::vector<std::uint8_t>& bytes() const { return bytes_; }

 private:
  // 127 bytes: storage header 16, standard header 16, extended header 10, arguments 77 and 8.
  void addMessage(std::uint32_t i) {
    constexpr std::string_view sentence =
        "connection to the instrument cluster was established after some tries";
    static_assert(sentence.size() == 69);
    add("DLT\x01");
    addLittle(1'700'000'000 + i / 1000);
    addLittle(i % 1000 * 1000);
    add("ECU1");
    bytes_.insert(bytes_.end(), {0x3d, static_cast<std::uint8_t>(i), 0, 111});
    add("ECU1");
    addBig(42);
    addBig(i * 10);
    bytes_.insert(bytes_.end(), {static_cast<std::uint8_t>(1 | (i % 6 + 1) << 4), 2});
    add("APP1");
    add("CTX1");
    addLittle(kDltString);
    bytes_.insert(bytes_.end(), {sentence.size() + 2, 0});
    add(sentence);
    bytes_.insert(bytes_.end(), {0, 0});
    addLittle(kDltUint32);
    addLittle(i * 7919);
  }

  void add(std::string_view text) { bytes_.insert(bytes_.end(), text.begin(), text.end()); }
  void addLittle(std::uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) {
      bytes_.push_back(static_cast<std::uint8_t>(value >> shift));
    }
  }
  void addBig(std::uint32_t value) { addLittle(std::byteswap(value)); }

  std::vector<std::uint8_t> bytes_;
};

}  // namespace bench
