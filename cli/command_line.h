// SPDX-License-Identifier: MIT

// The command line of `runeflow`: its subcommands with their options and help texts.
#pragma once

namespace cli {

// Reads the command line, runs the subcommand that it names and returns the exit code. Throws
// host::Failure for a command line that it cannot read.
int runCommandLine(int argc, char** argv);

}  // namespace cli
