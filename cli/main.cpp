// `runeflow`: the command-line host of RuneflowCore. Records go to standard output, everything else
// to standard error.
#include <fmt/format.h>

#include <cstdio>
#include <exception>
#include <system_error>

#include "command_line.h"
#include "host/failure.h"
#include "output.h"

namespace {

constexpr int kUsageOrInputError = 2;

int complain(const char* sentence) {
  // Not with fmt::print, which throws if standard error cannot be written.
  std::fputs(fmt::format("runeflow: {}\n", sentence).c_str(), stderr);
  return kUsageOrInputError;
}

}  // namespace

int main(int argc, char** argv) {
  try {
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
