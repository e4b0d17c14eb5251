// `runeflow`: the command-line host of RuneflowCore. Records go to standard output, everything else
// to standard error.
#include <fmt/format.h>

#include <cstdio>
#include <exception>
#include <system_error>

#include "commands.h"
#include "failure.h"

namespace {

constexpr int kUsageOrInputError = 2;

int complain(const char* sentence) {
  // Not by fmt::print, which throws where nothing can be written.
  std::fputs(fmt::format("runeflow: {}\n", sentence).c_str(), stderr);
  return kUsageOrInputError;
}

int run(int argc, char** argv) {
  CLI::App app("Captures log streams into an SQLite database and answers questions about them.");
  app.require_subcommand(1);
  app.footer("Exit codes: 0 done, 1 nothing matched, 2 a usage or input error.");
  app.failure_message(CLI::FailureMessage::simple);
  app.set_version_flag("--version", RUNEFLOW_VERSION);
  int exitCode = 0;
  cli::addCaptureCommand(app, exitCode);
  cli::addQueryCommand(app, exitCode);
  cli::addValuesCommand(app, exitCode);
  cli::addInfoCommand(app, exitCode);
  cli::addClearCommand(app, exitCode);
  cli::addSourcesCommand(app, exitCode);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& wanted) {  // --help and --version
    return app.exit(wanted);
  } catch (const CLI::ParseError& error) {
    return complain(fmt::format("{}; see --help", error.what()).c_str());
  }
  return exitCode;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const int exitCode = run(argc, argv);
    cli::flushOutput();
    return exitCode;
  } catch (const cli::Failure& failure) {
    return complain(failure.what());
  } catch (const std::system_error&) {  // of fmt::print
    return complain("cannot write the output; is its disk full?");
  } catch (const std::exception& unexpected) {
    return complain(unexpected.what());
  }
}
