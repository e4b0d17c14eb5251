// SPDX-License-Identifier: MIT
#include "output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <string>

#include "host/failure.h"
#include "host/terminal_text.h"
#include "runeflow/platform/app_log.h"

namespace cli {
namespace {

// While an object exists, a write to a pipe that nobody reads fails but does not end the process.
// It works on the thread alone, because SIGPIPE must still end the process when standard output has
// lost its reader.
class WithoutBrokenPipeSignal {
 public:
  WithoutBrokenPipeSignal() {
    sigemptyset(&brokenPipe_);
    sigaddset(&brokenPipe_, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    wasPending_ = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &brokenPipe_, &before_);
  }
  ~WithoutBrokenPipeSignal() {
    const timespec now{};
    if (!wasPending_) sigtimedwait(&brokenPipe_, nullptr, &now);
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  WithoutBrokenPipeSignal(const WithoutBrokenPipeSignal&) = delete;
  WithoutBrokenPipeSignal& operator=(const WithoutBrokenPipeSignal&) = delete;

 private:
  sigset_t brokenPipe_{};
  sigset_t before_{};
  bool wasPending_ = false;
};

// `prefix` and `suffix` are ours and written as they are.
void writeEscaped(std::string_view prefix, fmt::string_view format, fmt::format_args args,
                  std::string_view suffix) noexcept {
  try {
    std::string text(prefix);
    text += host::terminalText(fmt::vformat(format, args));
    writeError(text += suffix);
  } catch (const std::exception&) {
    // No memory for the sentence.
  }
}

}  // namespace

void flushOutput() {
  if (std::fflush(stdout) != 0) host::fail("{}", kCannotWrite);
}

void printEscaped(fmt::string_view format, fmt::format_args args) {
  fmt::print("{}\n", host::terminalText(fmt::vformat(format, args)));
}

void writeError(std::string_view text) noexcept {
  const WithoutBrokenPipeSignal guard;
  std::fwrite(text.data(), 1, text.size(), stderr);
}

void saySentence(fmt::string_view format, fmt::format_args args) noexcept {
  writeEscaped("runeflow: ", format, args, "\n");
}

void askQuestion(fmt::string_view format, fmt::format_args args) noexcept {
  writeEscaped({}, format, args, {});
}

void sayLibraryLog() {
  runeflow::AppLog::attachSink([](const auto& line) { say("{}", line.message); });
}

void reserveStandardDescriptors() {
  // open() returns the smallest free number.
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(stream, F_GETFD) < 0 && errno == EBADF) {
      ::open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
  }
}

}  // namespace cli
