// Opening the database that a command names, and telling what kind of log it holds.
#pragma once

#include <optional>
#include <string>

#include "runeflow/store/event_store.h"

namespace cli {

// The built-in descriptor of that id ("logcat" or "dlt").
const runeflow::SourceDescriptor& descriptorNamed(const std::string& id);

// Which built-in kind of source laid down the indexes of a store; absent when neither did.
std::optional<std::string> kindOf(const runeflow::StoreInfo& info);

// Opens a database that must exist. `source` names its kind; empty means by its indexes.
runeflow::EventStore openDatabase(const std::string& path, const std::string& source);

// Fails for a query that SQLite refuses. To the library it matches nothing; its user should know
// the difference.
void requireThatSqliteTakes(runeflow::EventStore& store, const runeflow::LogQuery& query,
                            const std::string& path);

// Opens a database for a capture, made if missing. What is there already must be a database with
// the records of the same kind of source.
runeflow::EventStore openForCapture(const std::string& path,
                                    const runeflow::SourceDescriptor& descriptor);

// The field of that name; a name that is none fails with those that are.
const runeflow::FieldDescriptor& fieldNamed(const runeflow::SourceDescriptor& descriptor,
                                            const std::string& name);

}  // namespace cli
