// SPDX-License-Identifier: MIT

// Reads the command line of `runeflow`, with the user's defaults, and runs what it names.
#pragma once

namespace cli {

// Reads the command line, runs the subcommand that it names and returns the exit code. Throws
// host::Failure for a command line that it cannot read.
int runCommandLine(int argc, char** argv);

}  // namespace cli
