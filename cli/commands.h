// The subcommands of `runeflow`. Each adds itself to the application and, when it was chosen, runs
// in the application's callback and leaves its exit code behind: 0 done, 1 nothing matched.
// Failures are thrown as cli::Failure.
#pragma once

#include <CLI/CLI.hpp>

namespace cli {

void addCaptureCommand(CLI::App& app, int& exitCode);
void addQueryCommand(CLI::App& app, int& exitCode);
void addValuesCommand(CLI::App& app, int& exitCode);
void addInfoCommand(CLI::App& app, int& exitCode);
void addClearCommand(CLI::App& app, int& exitCode);
void addSourcesCommand(CLI::App& app, int& exitCode);

}  // namespace cli
