// SPDX-License-Identifier: MIT
#include "pager.h"

#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <utility>

#include "host/failure.h"

namespace cli {
namespace {

[[noreturn]] void failToStart(const std::string& command) {
  host::fail("cannot start the pager '{}'; set PAGER to one that is installed", command);
}

}  // namespace

Pager::Pager() {
  const char* wanted = std::getenv("PAGER");  // NOLINT(concurrency-mt-unsafe)
  command_ = wanted && *wanted ? wanted : "less";
  // less shows colours only with R, which the user's own LESS may lack, and lv with -c. F ends at
  // once if one page is enough. NOLINTBEGIN(concurrency-mt-unsafe)
  const char* own = std::getenv("LESS");
  ::setenv("LESS", own && *own ? (std::string(own) + " -R").c_str() : "FRX", 1);
  ::setenv("LV", "-c", 0);
  // NOLINTEND(concurrency-mt-unsafe)
  pipe_ = ::popen(command_.c_str(), "w");
  if (!pipe_) failToStart(command_);
  std::signal(SIGINT, SIG_IGN);
  std::signal(SIGPIPE, SIG_IGN);
}

Pager::~Pager() {
  if (pipe_) ::pclose(pipe_);
}

void Pager::wait() {
  constexpr int kNotFound = 127;  // the shell's exit code for a command that it cannot find
  const int status = ::pclose(std::exchange(pipe_, nullptr));
  if (WIFEXITED(status) && WEXITSTATUS(status) == kNotFound) failToStart(command_);
}

}  // namespace cli
