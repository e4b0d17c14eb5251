// SPDX-License-Identifier: MIT

// The failure that a host shows to its user: one sentence that says what failed, on which file,
// host or word, and what to do.
#pragma once

#include <fmt/format.h>

#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

namespace host {

struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Returns the system's text for an errno. Unlike strerror, it is safe on any thread.
inline std::string systemError(int error) {
  return std::generic_category().message(error);
}

// Throws a Failure with the formatted sentence.
template <class... Args>
[[noreturn]] void fail(fmt::format_string<Args...> format, Args&&... args) {
  throw Failure(fmt::format(format, std::forward<Args>(args)...));
}

}  // namespace host
