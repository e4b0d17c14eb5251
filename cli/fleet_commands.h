// SPDX-License-Identifier: MIT

// The subcommands of `runeflow` that talk to a fleet's table instead of a local database.
#pragma once

#include <string>

#include "commands.h"

namespace cli {

// Returns whether the database that a user names is the address of a table.
bool isFleet(const std::string& database);

int queryFleet(const QueryOptions& options);
int valuesOfFleet(const ValuesOptions& options);
int infoOfFleet(const InfoOptions& options);

}  // namespace cli
