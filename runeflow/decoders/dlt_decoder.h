// SPDX-License-Identifier: MIT
/// \file
/// Decodes the AUTOSAR Diagnostic Log and Trace (DLT) byte format into records.
///
/// The decoder reads the stream that a DLT daemon serves over TCP, and recordings, in which a
/// storage header precedes every message. One stream may mix messages with and without a storage
/// header.
///
/// The records fit SourceDescriptor::dlt(): slots 0 to 6 hold the ECU, application, context,
/// message type, counter, session and ECU timestamp. The ECU timestamp is in seconds, with four
/// decimals. The time of a record comes from the storage header, if there is one. Messages of type
/// Log keep their level; all others have level Info.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "runeflow/decoders/row_decoder.h"
#include "runeflow/platform/api.h"

namespace runeflow {

/// Decodes one DLT stream. Between calls it keeps at most one unfinished message: a storage header
/// of 16 bytes and a message of up to 65,535 bytes.
class RUNEFLOW_EXPORT DLTDecoder final : public RowDecoder {
 public:
  /// Creates a decoder for a new stream. The decoder calls `now` once for each record whose message
  /// has no storage header, and uses the result as the record's time.
  explicit DLTDecoder(Clock now);

  /// Returns the records of the messages that `bytes` completes.
  ///
  /// A message that is shorter than the headers that it announces is skipped. A length below the 4
  /// bytes of the standard header means that the decoder has lost the message boundary. The decoder
  /// then skips one byte (and the storage header before it, if there is one) and tries again. The
  /// version bits in the HTYP byte of the standard header are ignored.
  std::vector<LogRow> consume(std::span<const std::uint8_t> bytes) override;

  /// The largest number of bytes at the start of a stream that looksLikeRecording() examines.
  static constexpr std::size_t sampleSize = 4;

  /// Returns true if `bytes`, the start of a stream, begin with a storage header, as every
  /// recording does. The stream of a daemon has no storage headers and is not recognized.
  static bool looksLikeRecording(std::span<const std::uint8_t> bytes);

 private:
  std::vector<std::uint8_t> carry_;  // an unfinished message
  std::size_t expectedRows_ = 0;     // estimate for the next piece, from the rows of the last one
  Clock now_;
};

}  // namespace runeflow
