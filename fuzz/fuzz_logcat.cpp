// SPDX-License-Identifier: MIT

// However logcat text is cut, its rows are the same, and their texts are UTF-8.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <span>
#include <vector>

#include "fuzz/support.h"
#include "runeflow/decoders/logcat_decoder.h"
#include "runeflow/platform/unicode_p.h"

using fuzz::require;
using runeflow::LogcatDecoder;
using runeflow::LogRow;
using runeflow::unicode::isValidUtf8;

namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::uint8_t kLineFeed[] = {'\n'};
constexpr std::size_t kPieceSizes = 4;

runeflow::Timestamp now() {
  return runeflow::Timestamp(std::chrono::duration<double>(1'700'000'000));
}

// Decodes the stream in pieces of 1 to 256 bytes. The sizes less 1 are used in turn.
std::vector<LogRow> decodedInPieces(LogcatDecoder& decoder, Bytes stream, Bytes sizes) {
  std::vector<LogRow> rows;
  for (std::size_t i = 0; !stream.empty(); ++i) {
    const auto piece =
        stream.first(std::min<std::size_t>(sizes[i % sizes.size()] + 1, stream.size()));
    std::ranges::move(decoder.consume(piece), std::back_inserter(rows));
    stream = stream.subspan(piece.size());
  }
  return rows;
}

bool isUtf8(const LogRow& row) {
  const auto isSlotUtf8 = [](const LogRow::Slot& slot) { return !slot || isValidUtf8(*slot); };
  return isValidUtf8(row.message()) && std::ranges::all_of(row.slots(), isSlotUtf8);
}

// A line that the decoder could read has a tag. The sample may hold fewer lines than the stream.
void checkRecognition(Bytes stream, const std::vector<LogRow>& rows) {
  const bool isRecognised = LogcatDecoder::looksLikeThreadtime(stream);
  const bool hasDecoded =
      std::ranges::any_of(rows, [](const LogRow& row) { return row.s0().has_value(); });
  require(isRecognised ? hasDecoded : !hasDecoded || stream.size() > LogcatDecoder::sampleSize);
}

}  // namespace

// The first four bytes say where to cut the rest.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < kPieceSizes) return 0;
  const Bytes stream(data + kPieceSizes, size - kPieceSizes);
  LogcatDecoder whole(now);
  LogcatDecoder pieces(now);
  const auto rows = whole.consume(stream);
  require(decodedInPieces(pieces, stream, Bytes(data, kPieceSizes)) == rows);
  const auto last = whole.consume(kLineFeed);  // the unfinished line at the end
  require(pieces.consume(kLineFeed) == last);
  require(std::ranges::all_of(rows, isUtf8) && std::ranges::all_of(last, isUtf8));
  checkRecognition(stream, rows);
  return 0;
}
