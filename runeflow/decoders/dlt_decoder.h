// The AUTOSAR Diagnostic Log and Trace (DLT) byte format as records: what a DLT daemon serves over
// TCP, and recordings in which a storage header precedes every message. Both kinds may be mixed
// message by message.
//
// The rows suit SourceDescriptor::dlt(): ECU, application, context, message type, counter, session
// and ECU timestamp in slots 0 to 6.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "runeflow/decoders/row_decoder.h"

namespace runeflow {

// Keeps the bytes of at most one unfinished message (16 + 65,535) between calls.
class DLTDecoder final : public RowDecoder {
 public:
  // `now` dates the messages that have no storage header; it is called once for each such row.
  explicit DLTDecoder(Clock now);

  // How many bytes of a stream looksLikeRecording() examines at most.
  static constexpr std::size_t sampleSize = 4;

  // Whether a stream begins with a storage header, as every recording does. What a daemon serves
  // has none and is not recognised.
  static bool looksLikeRecording(std::span<const std::uint8_t> bytes);

  // A message whose headers do not fit into its own length is dropped whole. A length below that of
  // the standard header means that the stream is out of step: one byte is dropped (after a storage
  // header, if one stands there) and reading goes on. The version bits are not examined.
  std::vector<LogRow> consume(std::span<const std::uint8_t> bytes) override;

 private:
  std::vector<std::uint8_t> carry_;
  Clock now_;
};

}  // namespace runeflow
