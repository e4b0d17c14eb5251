// SPDX-License-Identifier: MIT

// Runs another program and collects its standard output.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace runeflow {

struct ProcessResult {
  // Absent if a signal ended the program. Also absent if the host (the program that uses the
  // library) ignores SIGCHLD or waits for every child itself: the status is then lost.
  std::optional<int> exitStatus;
  std::vector<std::uint8_t> output;  // all of standard output; empty if discarded
};

enum class StandardOutput : std::uint8_t { captured, discarded };

// Runs `program`, a path that is used without a shell or a search, and blocks until it has ended.
// If standard output is captured, also blocks until every process that inherited it has closed it.
// There is no time limit. Returns nothing if the program cannot be started.
//
// The program's standard input and standard error are the null device, and it inherits no other
// descriptor of the host (on systems other than Linux and macOS, none that is close-on-exec). It
// inherits the caller's environment, working directory and thread priority. Several threads may
// call this function at once.
std::optional<ProcessResult> runProcess(const std::string& program,
                                        const std::vector<std::string>& arguments,
                                        StandardOutput standardOutput);

}  // namespace runeflow
