// Functions that open the database that a user names. If it cannot be used, they fail with a
// sentence that gives the reason.
#pragma once

#include <string>

#include "host/log_kind.h"
#include "runeflow/store/event_store.h"

namespace host {

// Returns the kind of log that has the same indexes as the store, or null if there is none.
const LogKind* kindOf(const runeflow::StoreInfo& info);

// Opens a database that must exist. `source` names the kind of its records. If `source` is empty,
// the function recognises the kind by the indexes.
runeflow::EventStore openDatabase(const std::string& path, const std::string& source);

// Fails if SQLite refuses the statement of the query. In that case the library's reads return
// nothing, which a user would mistake for "no match".
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
