// SPDX-License-Identifier: MIT

// What the shells complete.
#pragma once

#include <string>
#include <vector>

#include "command_description.h"
#include "defaults.h"

namespace cli {

// Prints what the last of `words` may become, the words of a line behind "runeflow". The first line
// is "files" if the names of files are candidates, too, otherwise "words". Each further line is a
// candidate, and behind a tab its description. Commands, options and their values come from
// `program`, fields and their values from the database on the line, which is read for a fraction of
// a second.
void printCompletions(const ProgramDescription& program, const Defaults& defaults,
                      const std::vector<std::string>& words);

}  // namespace cli
