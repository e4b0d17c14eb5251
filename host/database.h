// Opening the database that a user names, with a sentence for every reason why it cannot be used.
#pragma once

#include <string>

#include "host/log_kind.h"
#include "runeflow/store/event_store.h"

namespace host {

// Returns the kind of log whose indexes a store has, or null if they are those of none.
const LogKind* kindOf(const runeflow::StoreInfo& info);

// Opens a database that must exist for reads, which change no file. `source` names the kind of its
// records; if it is empty, the indexes tell.
runeflow::EventStore openDatabase(const std::string& path, const std::string& source);

// Opens a database that must exist for changes that need not know what its records hold.
runeflow::EventStore openForWriting(const std::string& path);

// Fails if a read or write of the store was cut short since the last call.
void failIfIncomplete(runeflow::EventStore& store, const std::string& path);

// Fails if SQLite refuses the statement of the query. The library's reads return nothing then, and
// a user should not take that for "no match".
void failIfRefused(runeflow::EventStore& store, const runeflow::LogQuery& query,
                   const std::string& path);

// Opens a database for a capture and creates it if it does not exist. Fails if the file holds
// anything but a store of the same kind of records.
runeflow::EventStore openForCapture(const std::string& path,
                                    const runeflow::SourceDescriptor& descriptor);

// Returns the field of that name. Fails with the names that there are.
const runeflow::FieldDescriptor& fieldNamed(const runeflow::SourceDescriptor& descriptor,
                                            const std::string& name);

}  // namespace host
