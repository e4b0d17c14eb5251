// What ends a command with exit code 2: one sentence that says what failed, on what, and what to
// do.
#pragma once

#include <fmt/format.h>

#include <stdexcept>
#include <string>
#include <utility>

namespace cli {

struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

template <class... Args>
[[noreturn]] void fail(fmt::format_string<Args...> format, Args&&... args) {
  throw Failure(fmt::format(format, std::forward<Args>(args)...));
}

}  // namespace cli
