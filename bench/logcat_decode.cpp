// SPDX-License-Identifier: MIT

// Compares the decoding of logcat text into rows with a bare program: a loop that reads the same
// fields and copies no texts.
#include <fmt/format.h>

#include <string>
#include <string_view>

#include "bench/bare.h"
#include "bench/bare_logcat.h"
#include "bench/measure.h"
#include "runeflow/decoders/logcat_decoder.h"

namespace {

constexpr int kRounds = 7;

std::size_t decodeRows(std::string_view text) {
  runeflow::LogcatDecoder decoder([] { return runeflow::Timestamp{}; });
  std::size_t rows = 0;
  while (!text.empty()) {
    const auto piece = text.substr(0, bench::kPiece);
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
      kRounds, [&] { checksum += bench::logcat::decodeBare(text); },
      [&] { rows += decodeRows(text); });
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
