// What ends a command with exit code 2: one sentence that says what failed, on what, and what to
// do.
#pragma once

#include <fmt/format.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

namespace cli {

struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// What the system says of an errno; safe on any thread, unlike strerror.
inline std::string systemError(int error) {
  return std::generic_category().message(error);
}

template <class... Args>
[[noreturn]] void fail(fmt::format_string<Args...> format, Args&&... args) {
  throw Failure(fmt::format(format, std::forward<Args>(args)...));
}

// What was printed so far must have arrived.
inline void flushOutput() {
  if (std::fflush(stdout) != 0) fail("cannot write the output; is its disk full?");
}

}  // namespace cli
