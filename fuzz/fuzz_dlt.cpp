// SPDX-License-Identifier: MIT

// Decodes any bytes as a DLT stream, whole and cut in two. Both ways must give the same rows, and
// the texts of the rows must be valid UTF-8.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <span>
#include <vector>

#include "runeflow/decoders/dlt_decoder.h"
#include "runeflow/platform/unicode_p.h"

using runeflow::DLTDecoder;
using runeflow::LogRow;
using runeflow::unicode::isValidUtf8;

// The first two bytes of the input give the position of the cut in the bytes after them.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const std::span<const std::uint8_t> stream(data + 2, size - 2);
  const std::size_t cut = (std::size_t{data[0]} << 8 | data[1]) % (stream.size() + 1);

  const runeflow::Clock clock = [] { return runeflow::Timestamp{}; };
  const std::vector<LogRow> whole = DLTDecoder(clock).consume(stream);

  DLTDecoder decoder(clock);
  std::vector<LogRow> pieces = decoder.consume(stream.first(cut));
  std::vector<LogRow> rest = decoder.consume(stream.subspan(cut));
  pieces.insert(pieces.end(), std::make_move_iterator(rest.begin()),
                std::make_move_iterator(rest.end()));
  if (pieces != whole) std::abort();

  for (const LogRow& row : whole) {
    if (!isValidUtf8(row.message())) std::abort();
    for (const LogRow::Slot& slot : row.slots()) {
      if (slot && !isValidUtf8(*slot)) std::abort();
    }
  }
  return 0;
}
