// SPDX-License-Identifier: MIT

// Compares the decoding of a DLT recording into rows with a bare program: a loop that reads the
// same fields and copies no texts.
#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "bench/bare_dlt.h"
#include "bench/dlt_messages.h"
#include "bench/measure.h"
#include "runeflow/decoders/dlt_decoder.h"

namespace {

using bench::Bytes;

constexpr std::size_t kMessages = 1'000'000;
constexpr int kRounds = 7;

std::size_t decodeRows(Bytes recording) {
  runeflow::DLTDecoder decoder([] { return runeflow::Timestamp{}; });
  std::size_t rows = 0;
  while (!recording.empty()) {
    const std::size_t size = std::min(bench::kPiece, recording.size());
    rows += decoder.consume(recording.first(size)).size();
    recording = recording.subspan(size);
  }
  return rows;
}

void report(std::string_view name, double seconds, std::size_t bytes) {
  fmt::print("{:<16} {:>12.0f} messages/s {:>8.0f} MB/s\n", name, kMessages / seconds,
             static_cast<double>(bytes) / seconds / 1e6);
}

}  // namespace

int main() {
  const bench::DltRecording recording(kMessages);
  const Bytes bytes = recording.bytes();
  std::uint64_t checksum = 0;
  std::size_t rows = 0;
  const auto [bare, decoded] = bench::medianSeconds(
      kRounds, [&] { checksum += bench::dlt::decodeBare(bytes); },
      [&] { rows += decodeRows(bytes); });

  report("bare decode", bare, bytes.size());
  report("DLTDecoder", decoded, bytes.size());
  fmt::print("ratio {:.2f} (checksum {:x}, {} rows)\n", decoded / bare, checksum, rows);
  return rows == kMessages * kRounds ? 0 : 1;
}
