// Moves the bytes of a stream into the pipe of a capture's reader, so that the user can interrupt
// any stream.
#pragma once

#include <functional>

#include "host/stream.h"
#include "interrupt.h"

namespace cli {

enum class StreamEnd {
  ended,
  interrupted,  // by the user
  failed,       // the stream could not be read; PumpResult::error says why
  readerGone    // the reader has closed its end of the pipe
};

struct PumpResult {
  StreamEnd end;
  int error = 0;  // an errno
};

// Writes the bytes of the stream to `sink`, a blocking descriptor, until either of them ends or the
// user interrupts. Calls `tick` a few times a second and after every piece.
PumpResult pump(host::Stream& stream, int sink, const Interrupt& interrupt,
                const std::function<void()>& tick);

}  // namespace cli
