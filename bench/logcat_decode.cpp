// SPDX-License-Identifier: MIT

// Compares the decoding of logcat text into rows with a bare program: a loop that reads the same
// fields and copies no texts.
#include <fmt/format.h>

#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "bench/bare.h"
#include "bench/measure.h"
#include "runeflow/decoders/logcat_decoder.h"

namespace {

constexpr std::size_t kPiece = 65'536;  // bytes that a capture reads at once
constexpr int kRounds = 7;

std::uint64_t number(const char*& p, char end) {
  std::uint64_t value = 0;
  for (; *p != end; ++p) value = value * 10 + static_cast<std::uint64_t>(*p - '0');
  return value;
}

void skipBlanks(const char*& p) {
  while (*p == ' ') ++p;
}

// The fields of one line. The texts point into the input.
struct BareLine {
  std::int64_t milliseconds;  // in a year whose months all have 31 days
  char level;
  std::string_view pid, tid, tag, message;
};

std::string_view field(const char*& p) {
  skipBlanks(p);
  const char* const start = p;
  while (*p != ' ') ++p;
  return {start, static_cast<std::size_t>(p - start)};
}

// The bare program. Finds each line with memchr, splits it into fields and computes its time, in
// records that point into the input. Discards the records as soon as there are as many as one piece
// holds. Processes the input in one call, checks nothing and copies no text.
std::uint64_t decodeBare(std::string_view text) {
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

std::size_t decodeRows(std::string_view text) {
  runeflow::LogcatDecoder decoder([] { return runeflow::Timestamp{}; });
  std::size_t rows = 0;
  while (!text.empty()) {
    const auto piece = text.substr(0, kPiece);
    rows +=
        decoder.consume({reinterpret_cast<const std::uint8_t*>(piece.data()), piece.size()}).size();
    text.remove_prefix(piece.size());
  }
  return rows;
}

}  // namespace

int main() {
  const int lines = bench::rowCount(1'000'000);
  const auto text = bench::logcatLines(lines);
  std::uint64_t checksum = 0;
  std::size_t rows = 0;
  const auto [bare, decoded] = bench::medianSeconds(
      kRounds, [&] { checksum += decodeBare(text); }, [&] { rows += decodeRows(text); });
  const auto report = [&](const char* name, double seconds) {
    fmt::print("{:<16} {:>12.0f} lines/s {:>8.0f} MB/s\n", name, lines / seconds,
               static_cast<double>(text.size()) / seconds / 1e6);
  };
  report("bare decode", bare);
  report("LogcatDecoder", decoded);
  fmt::print("ratio {:.2f} (checksum {:x}, {} rows of {} bytes)\n", decoded / bare, checksum, rows,
             text.size() / static_cast<std::size_t>(lines));
  return rows == static_cast<std::size_t>(lines) * kRounds ? 0 : 1;
}
