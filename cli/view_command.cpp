// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>

#include "commands.h"
#include "interrupt.h"
#include "output.h"
#include "terminal.h"
#include "viewer/viewer.h"

namespace cli {
namespace {

constexpr int kWaitMilliseconds = 60'000;

bool hasDisplay() {
  // NOLINTBEGIN(concurrency-mt-unsafe)
  const char* x11 = std::getenv("DISPLAY");
  const char* wayland = std::getenv("WAYLAND_DISPLAY");
  // NOLINTEND(concurrency-mt-unsafe)
  return (x11 && *x11) || (wayland && *wayland);
}

// A browser is a convenience: the address is printed, and a failure is ignored. The shell exits at
// once, so that nothing has to wait for the browser.
void openBrowser(const std::string& address) {
  std::string script = "xdg-open \"$1\" >/dev/null 2>&1 </dev/null &";
  std::string shell = "sh";
  std::string option = "-c";
  std::string argument = address;
  char* arguments[] = {shell.data(), option.data(),   script.data(),
                       shell.data(), argument.data(), nullptr};
  // The signals that end the view must not stay blocked in the browser.
  posix_spawnattr_t attributes;
  ::posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  ::posix_spawnattr_setsigmask(&attributes, &none);
  ::posix_spawnattr_setpgroup(&attributes, 0);
  ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
  pid_t child = 0;
  if (::posix_spawnp(&child, "sh", nullptr, &attributes, arguments, environ) == 0) {
    ::waitpid(child, nullptr, 0);
  }
  ::posix_spawnattr_destroy(&attributes);
}

}  // namespace

int view(const ViewCommandOptions& options) {
  const Interrupt interrupt;  // before the first thread
  std::signal(SIGPIPE, SIG_IGN);
  viewer::Viewer viewer({.path = options.path, .source = options.source, .port = options.port});
  if (const auto note = viewer.note(); !note.empty()) say("{}", note);
  fmt::print("{}\n", viewer.address());
  flushOutput();
  const bool isWatched = isTerminal(stdin) && isTerminal(stdout);
  if (!options.staysClosed && isWatched && hasDisplay()) openBrowser(viewer.address());
  while (!interrupt.waitFor(kWaitMilliseconds)) {
  }
  return 0;
}

}  // namespace cli
