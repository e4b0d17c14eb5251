// SPDX-License-Identifier: MIT

// The manual pages.
#pragma once

#include <string>

#include "command_description.h"

namespace cli {

// Writes runeflow.1 and a page for each subcommand, runeflow-query.1, into the folder, in the
// man(7) macros. Fails if the folder does not exist or cannot be written.
void writeManual(const ProgramDescription& program, const std::string& folder);

}  // namespace cli
