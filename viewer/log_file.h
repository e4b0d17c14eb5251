// SPDX-License-Identifier: MIT

// `runeflow view LOG`: which database shows a log.
#pragma once

#include <optional>
#include <string>

#include "host/stream.h"

namespace viewer {

// Returns whether the path names a file to open as a database: it begins as an SQLite file or is
// empty, or it does not exist and is named like one. Standard input is "-" and none.
bool isDatabase(const std::string& path);

// The database of a log and how it comes by its records.
struct LogDatabase {
  std::string path;
  std::optional<host::Stream> stream;  // to be captured into it; absent if it holds the log already
  std::string temporaryFolder;         // to be deleted in the end; empty if it is not temporary
  std::string note;                    // for the user
};

// Finds or makes the database of the log at `path`: the file NAME.db beside it, one with a number
// if that one is older than the log, or a temporary one if the folder cannot be written. Fails with
// a sentence if the log cannot be read.
LogDatabase databaseOf(const std::string& path, const std::string& kind);

}  // namespace viewer
