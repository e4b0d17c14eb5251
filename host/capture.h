// SPDX-License-Identifier: MIT

// Captures that a user can watch and end, whatever their stream is.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "host/pump.h"
#include "host/stream.h"
#include "runeflow/capture/capture_session.h"

namespace host {

// The smallest size cap that makes sense, in bytes: a smaller database would hold little but its
// indexes.
inline constexpr std::int64_t smallestCap = std::int64_t{4} << 20;

// Gives a session the settings of all captures for people: records are stored when the stream is
// quiet, long messages do not make a trim delete more than it must, and batches wait 30 s for
// locks.
void configure(runeflow::CaptureSession& session);

// What the host does meanwhile. Each function may be empty.
struct CaptureHooks {
  std::function<bool()> tick;           // as pump() calls it
  std::function<void()> onInterrupted;  // the user has ended the capture; its reader still runs
  std::function<void()> onWaiting;      // called many times a second until the reader has ended
};

// Wraps the decoder of a stream, or returns it as it is.
using DecoderWrapper =
    std::function<std::unique_ptr<runeflow::RowDecoder>(std::unique_ptr<runeflow::RowDecoder>)>;

// Captures the stream through the session until one of them ends or the descriptor `end` becomes
// readable, which may be while its last records are stored. Returns when all are stored, or within
// a second after `end` if another program has locked the database. The process must ignore SIGPIPE.
PumpResult captureStream(runeflow::CaptureSession& session, Stream& stream,
                         const DecoderWrapper& wrap, int end, const CaptureHooks& hooks);

// Returns the sentence for a capture that ended early; empty if it did not.
std::string sentenceFor(const PumpResult& pumped, const Stream& stream,
                        const std::string& database);

}  // namespace host
