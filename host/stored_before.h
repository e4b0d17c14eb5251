// SPDX-License-Identifier: MIT

// Whether a file was captured into a database before.
#pragma once

#include "host/stream.h"
#include "runeflow/store/event_store.h"

namespace host {

// Returns whether the first and the last 100 records of the file are stored one after the other,
// the last behind the first. All records count if there are fewer. A stream that is no regular file
// has not been captured before.
//
// Reads a megabyte from both ends of the file, and all of a packed one, and asks the full-text
// index for two messages. The stream is left as it is.
bool isStoredBefore(runeflow::EventStore& store, const Stream& stream);

}  // namespace host
