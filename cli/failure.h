// What ends a command with exit code 2: one sentence that says what failed, on what, and what to
// do.
#pragma once

#include <fmt/format.h>

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

}  // namespace cli
