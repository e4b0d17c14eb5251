// SPDX-License-Identifier: MIT

// Functions that open the database that a user names. If it cannot be used, they fail with a
// sentence that gives the reason.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "host/log_kind.h"
#include "runeflow/store/event_store.h"

namespace host {

// Returns the kind of log that has the same indexes as the store, or null if there is none.
const LogKind* kindOf(const runeflow::StoreInfo& info);

// Returns whether the file at `path` begins as an SQLite database does. Not for a database that
// this process has open: closing the file drops the locks of its connections.
bool isDatabaseFile(const std::string& path);

// Opens a database that must exist for reads, which change no file. `source` names the kind of its
// records; if it is empty, the indexes tell.
runeflow::EventStore openDatabase(const std::string& path, const std::string& source);

// Opens a database that must exist for changes that need not know what its records hold.
runeflow::EventStore openForWriting(const std::string& path);

// Fails if a read or write of the store was cut short since the last call.
void failIfIncomplete(runeflow::EventStore& store, const std::string& path);

// Fails with the sentence for a read that was cut short.
[[noreturn]] void failWith(const runeflow::StoreError& error, const std::string& path);

// Fails if the store lists one of `seqs` for the query but has no such record in `found`, as in a
// damaged file in which SQLite sees no fault. Others may have deleted records meanwhile.
void failIfMissing(runeflow::EventStore& store, const runeflow::LogQuery& query,
                   std::span<const std::int64_t> seqs, std::span<const runeflow::FetchedRow> found,
                   const std::string& path);

// Fails if SQLite refuses the statement of the query. The library's reads return nothing then, and
// a user should not take that for "no match".
void failIfRefused(runeflow::EventStore& store, const runeflow::LogQuery& query,
                   const std::string& path);

// Opens a database for a capture and creates it if it does not exist. Fails if the file is the
// database of another program or holds records of another kind.
runeflow::EventStore openForCapture(const std::string& path,
                                    const runeflow::SourceDescriptor& descriptor);

// Returns the field with that name. If there is none, fails with a list of the names.
const runeflow::FieldDescriptor& fieldNamed(const runeflow::SourceDescriptor& descriptor,
                                            const std::string& name);

}  // namespace host
