// Running a program of the system and taking what it prints.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace runeflow {

struct ProcessResult {
  // Absent when a signal ended the program, or when the host takes its children's statuses away
  // (by ignoring SIGCHLD, or by waiting for every child itself).
  std::optional<int> exitStatus;
  std::vector<std::uint8_t> output;  // standard output to its end
};

enum class StandardOutput : std::uint8_t { captured, discarded };

// Starts `program` (a path; no shell, no search) and blocks until it has ended and, when captured,
// everyone who writes to its standard output has closed it. There is no time limit. Standard input
// and standard error are the null device, so that the host's own are left alone, and no other
// descriptor of the host is passed on; the environment, the working folder and the thread's
// priority are the caller's. Absent when the program cannot be started. May be called on any
// thread, by several at once.
std::optional<ProcessResult> runProcess(const std::string& program,
                                        const std::vector<std::string>& arguments,
                                        StandardOutput standardOutput);

}  // namespace runeflow
