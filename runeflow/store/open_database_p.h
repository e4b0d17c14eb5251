// The SQLite objects that an open EventStore owns.
#pragma once

#include <cstdint>
#include <string>

#include "runeflow/store/sqlite_p.h"

namespace runeflow {

struct OpenDatabase {
  Connection connection;
  Statement insertRow;  // prepared by the first insert, kept until the store closes
  Statement insertFullText;
  bool hasLoggedClampedTimestamp = false;
};

// In the next two functions a null pointer means a closed store, on which every statement fails.

inline Statement prepare(OpenDatabase* database, const std::string& sql) {
  return database ? database->connection.prepare(sql) : Statement();
}

// Returns the first column of the first row as an integer, or 0 if there is none.
inline std::int64_t scalar(OpenDatabase* database, const std::string& sql) {
  Statement statement = prepare(database, sql);
  return statement && statement.stepsToRow() ? statement.integer(0) : 0;
}

}  // namespace runeflow
