// Decoding logcat text into rows, beside a split of the same lines into their fields that makes no
// texts of them.
#include <fmt/format.h>

#include <cstring>
#include <string>
#include <string_view>

#include "bench/bare.h"
#include "bench/measure.h"
#include "runeflow/decoders/logcat_decoder.h"

namespace {

constexpr std::size_t kPiece = 65'536;  // what the capture session reads at once
constexpr int kRounds = 7;

std::uint64_t number(const char*& p, char end) {
  std::uint64_t value = 0;
  for (; *p != end; ++p) value = value * 10 + static_cast<std::uint64_t>(*p - '0');
  return value;
}

void skipBlanks(const char*& p) {
  while (*p == ' ') ++p;
}

// The yardstick: memchr finds the line, every field is found and every number read, in one piece
// and without a check.
std::uint64_t splitBare(std::string_view text) {
  std::uint64_t sum = 0;
  const char* p = text.data();
  const char* const end = p + text.size();
  while (p < end) {
    const char* const lineEnd =
        static_cast<const char*>(std::memchr(p, '\n', static_cast<std::size_t>(end - p)));
    for (const char separator : {'-', ' ', ':', ':', '.', ' '}) {
      sum += number(p, separator);
      ++p;
    }
    for (int field = 0; field < 2; ++field) {  // pid, tid
      skipBlanks(p);
      sum += number(p, ' ');
    }
    skipBlanks(p);
    sum += static_cast<unsigned char>(*p);
    p += 2;
    const char* const colon =
        static_cast<const char*>(std::memchr(p, ':', static_cast<std::size_t>(lineEnd - p)));
    sum += static_cast<std::uint64_t>(colon - p) + static_cast<std::uint64_t>(lineEnd - colon);
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
      kRounds, [&] { checksum += splitBare(text); }, [&] { rows += decodeRows(text); });
  const auto report = [&](const char* name, double seconds) {
    fmt::print("{:<16} {:>12.0f} lines/s {:>8.0f} MB/s\n", name, lines / seconds,
               static_cast<double>(text.size()) / seconds / 1e6);
  };
  report("bare split", bare);
  report("LogcatDecoder", decoded);
  fmt::print("ratio {:.2f} (checksum {:x}, {} rows of {} bytes)\n", decoded / bare, checksum, rows,
             text.size() / static_cast<std::size_t>(lines));
  return rows == static_cast<std::size_t>(lines) * kRounds ? 0 : 1;
}
