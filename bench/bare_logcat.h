// SPDX-License-Identifier: MIT
// The bare program (the least code that does the same work) for decoding logcat text: a loop that
// reads the same fields and copies no texts.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>
#include <vector>

#include "bench/measure.h"

namespace bench::logcat {

inline std::uint64_t number(const char*& p, char end) {
  std::uint64_t value = 0;
  for (; *p != end; ++p) value = value * 10 + static_cast<std::uint64_t>(*p - '0');
  return value;
}

inline void skipBlanks(const char*& p) {
  while (*p == ' ') ++p;
}

// The fields of one line. The texts point into the input.
struct BareLine {
  std::int64_t milliseconds;  // in a year whose months all have 31 days
  char level;
  std::string_view pid, tid, tag, message;
};

inline std::string_view field(const char*& p) {
  skipBlanks(p);
  const char* const start = p;
  while (*p != ' ') ++p;
  return {start, static_cast<std::size_t>(p - start)};
}

// The bare program. Finds each line with memchr, splits it into fields and computes its time, in
// records that point into the input. Discards the records as soon as there are as many as one piece
// holds. Processes the input in one call, checks nothing and copies no text.
inline std::uint64_t decodeBare(std::string_view text) {
  constexpr std::size_t kRecords = kPiece / 110;
  std::vector<BareLine> records;
  records.reserve(kRecords);
  std::uint64_t sum = 0;
  const char* p = text.data();
  const char* const end = p + text.size();
  while (p < end) {
    if (records.size() == kRecords) {
      sum +=
          records.back().message.size() + static_cast<std::uint64_t>(records.back().milliseconds);
      records.clear();
    }
    auto& record = records.emplace_back();
    const char* const lineEnd =
        static_cast<const char*>(std::memchr(p, '\n', static_cast<std::size_t>(end - p)));
    std::uint64_t time = 0;
    constexpr std::pair<char, std::uint64_t> kUnits[] = {{'-', 31}, {' ', 24},   {':', 60},
                                                         {':', 60}, {'.', 1000}, {' ', 1}};
    for (const auto& [separator, next] : kUnits) {
      time = (time + number(p, separator)) * next;
      ++p;
    }
    record.milliseconds = static_cast<std::int64_t>(time);
    record.pid = field(p);
    record.tid = field(p);
    skipBlanks(p);
    record.level = *p;
    p += 2;
    const char* const colon =
        static_cast<const char*>(std::memchr(p, ':', static_cast<std::size_t>(lineEnd - p)));
    record.tag = {p, static_cast<std::size_t>(colon - p)};
    record.message = {colon + 2, static_cast<std::size_t>(lineEnd - colon - 2)};
    p = lineEnd + 1;
  }
  return sum;
}

}  // namespace bench::logcat
