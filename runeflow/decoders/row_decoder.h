// Cuts a byte stream into records.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "runeflow/model/log_row.h"

namespace runeflow {

// One decoder reads one stream and is used by one thread at a time.
struct RowDecoder {
  RowDecoder() = default;
  RowDecoder(const RowDecoder&) = delete;
  RowDecoder& operator=(const RowDecoder&) = delete;
  virtual ~RowDecoder() = default;

  // Takes the next piece of the stream, cut anywhere, and returns the records that it completes, in
  // stream order. Never fails: what cannot be read becomes raw rows or is skipped, as each decoder
  // says. Bytes of an unfinished record stay in the decoder; what it still holds when the stream
  // ends is lost.
  virtual std::vector<LogRow> consume(std::span<const std::uint8_t> bytes) = 0;
};

// The current time as a decoder asks for it; called on the decoder's thread.
using Clock = std::function<Timestamp()>;

}  // namespace runeflow
