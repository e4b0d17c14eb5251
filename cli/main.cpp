// SPDX-License-Identifier: MIT

// `runeflow`: the command-line host of RuneflowCore. Records go to standard output, everything else
// to standard error.
#include <exception>
#include <system_error>

#include "command_line.h"
#include "host/failure.h"
#include "output.h"
#include "runeflow/store/sqlite_process.h"

namespace {

constexpr int kUsageOrInputError = 2;

int complain(const char* sentence) {
  cli::say("{}", sentence);
  return kUsageOrInputError;
}

}  // namespace

int main(int argc, char** argv) {
  cli::reserveStandardDescriptors();
  runeflow::turnOffSQLiteMemoryStatistics();  // nothing here asks for them
  try {
    cli::sayLibraryLog();
    const int exitCode = cli::runCommandLine(argc, argv);
    cli::flushOutput();
    return exitCode;
  } catch (const host::Failure& failure) {
    return complain(failure.what());
  } catch (const std::system_error&) {  // thrown by fmt::print
    return complain(cli::kCannotWrite);
  } catch (const std::exception& unexpected) {
    return complain(unexpected.what());
  }
}
