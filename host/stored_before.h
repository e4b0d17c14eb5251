// SPDX-License-Identifier: MIT

// Whether a file was captured into a database before.
#pragma once

#include "host/stream.h"
#include "runeflow/store/event_store.h"

namespace host {

// Returns whether the store holds the first 100 records of the file one after the other, and after
// them the last 100. All records count if there are fewer. Returns false for a stream that is no
// regular file.
//
// Reads a megabyte from both ends of the file, or all of a compressed one, and searches for two
// records by their fields, the newest first, for at most a second together. In a database of many
// millions of records it may therefore miss records that lie far back. Does not change the stream.
bool isStoredBefore(runeflow::EventStore& store, const Stream& stream);

}  // namespace host
