// SPDX-License-Identifier: MIT
/// \file
/// The interface of the decoders, which cut a byte stream into log records.
///
/// LogcatDecoder and DLTDecoder implement it. A program that reads another format derives its own
/// decoder and passes it to a CaptureSession, or calls consume() itself.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "runeflow/model/log_row.h"
#include "runeflow/platform/api.h"

namespace runeflow {

/// Decodes one stream. An object may be used by one thread at a time.
struct RUNEFLOW_EXPORT RowDecoder {
  RowDecoder() = default;
  RowDecoder(const RowDecoder&) = delete;
  RowDecoder& operator=(const RowDecoder&) = delete;
  virtual ~RowDecoder() = default;

  /// Takes the next piece of the stream, which may be cut at any byte. Returns the records that the
  /// piece completes, in stream order.
  ///
  /// Never fails. Each decoder documents how it treats malformed input: it skips the bytes, or it
  /// returns a raw row (a record whose message is the whole undecoded line). The decoder keeps the
  /// bytes of an unfinished record until the next call. Bytes that it still keeps when the stream
  /// ends are lost.
  virtual std::vector<LogRow> consume(std::span<const std::uint8_t> bytes) = 0;
};

/// Returns the current time. A decoder calls it on the thread that uses the decoder.
using Clock = std::function<Timestamp()>;

}  // namespace runeflow
