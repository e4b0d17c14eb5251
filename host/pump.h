// SPDX-License-Identifier: MIT

// Moves the bytes of a stream into the pipe of a capture's reader, so that the user can interrupt
// any stream.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "host/stream.h"

namespace host {

enum class StreamEnd {
  ended,
  interrupted,  // `end` became readable
  failed,       // the stream could not be read; PumpResult::reason says why
  endless,      // a record is longer than PumpResult::longestRecord
  stopped,      // `tick` returned false
  readerGone    // the reader has closed its end of the pipe
};

struct PumpResult {
  static constexpr std::size_t longestRecord = std::size_t{64} << 20;  // bytes

  StreamEnd end;
  std::string reason = {};
};

// Writes the bytes of the stream to `sink`, a descriptor that does not block, until either of them
// ends or the user interrupts. Unpacks them on the way. Calls `tick` a few times a second and after
// every piece. Ends the last record of a file or of standard input if the file does not.
PumpResult pump(Stream& stream, int sink, int end, const std::function<bool()>& tick);

}  // namespace host
