// SPDX-License-Identifier: MIT
// The bare program (the least code that does the same work) for decoding a DLT recording: a loop
// that reads the same fields and copies no texts.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>
#include <vector>

#include "bench/dlt_messages.h"
#include "bench/measure.h"

namespace bench::dlt {

template <class T>
T at(const std::uint8_t* bytes) {
  T value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

// The fields of one message. The texts point into the recording.
struct BareMessage {
  double time;
  std::uint32_t level;
  std::string_view ecu, app, context;
  std::uint32_t counter, session, timestamp;
  std::array<std::string_view, 4> texts;
  std::array<std::uint64_t, 4> numbers;
};

inline std::string_view identifier(const std::uint8_t* p) {
  std::size_t size = 4;
  while (size > 0 && (p[size - 1] == 0 || p[size - 1] == ' ')) --size;
  return {reinterpret_cast<const char*>(p), size};
}

inline void readArguments(const std::uint8_t* p, const std::uint8_t* end, unsigned count,
                          BareMessage& message) {
  for (unsigned i = 0; i < count && i < message.texts.size() && end - p >= 4; ++i) {
    const auto type = at<std::uint32_t>(p);
    p += 4;
    if (type & kDltString) {
      std::size_t size = at<std::uint16_t>(p);
      const std::size_t whole = size;
      while (size > 0 && p[1 + size] == 0) --size;
      message.texts[i] = {reinterpret_cast<const char*>(p + 2), size};
      p += 2 + whole;
    } else {
      message.numbers[i] = at<std::uint32_t>(p);
      p += 4;
    }
  }
}

// The bare program. Reads every field of every message into records that point into the recording.
// Discards the records as soon as there are as many as one piece holds. Processes the recording in
// one call, checks nothing and copies no text.
inline std::uint64_t decodeBare(Bytes recording) {
  constexpr std::size_t kRecords = kPiece / kDltMessageSize;
  std::vector<BareMessage> records;
  records.reserve(kRecords);
  std::uint64_t sum = 0;
  const std::uint8_t* p = recording.data();
  const std::uint8_t* const end = p + recording.size();
  while (p < end) {
    if (records.size() == kRecords) {
      sum += records.back().numbers[1] + records.back().texts[0].size();
      records.clear();
    }
    auto& record = records.emplace_back();
    record.time = at<std::uint32_t>(p + 4) + at<std::uint32_t>(p + 8) / 1e6;
    record.ecu = identifier(p + 12);
    const std::uint8_t* const header = p + 16;
    const std::uint8_t* const messageEnd = header + std::byteswap(at<std::uint16_t>(header + 2));
    record.counter = header[1];
    p = header + 4;
    if (header[0] & 4U) record.ecu = identifier(std::exchange(p, p + 4));
    if (header[0] & 8U) record.session = std::byteswap(at<std::uint32_t>(std::exchange(p, p + 4)));
    if (header[0] & 16U)
      record.timestamp = std::byteswap(at<std::uint32_t>(std::exchange(p, p + 4)));
    record.level = p[0];
    record.app = identifier(p + 2);
    record.context = identifier(p + 6);
    readArguments(p + 10, messageEnd, p[1], record);
    p = messageEnd;
  }
  return sum;
}

}  // namespace bench::dlt
