// Reports that standard output cannot be written.
#pragma once

#include <cstdio>

#include "host/failure.h"

namespace cli {

inline constexpr const char* kCannotWrite = "cannot write the output; is its disk full?";

// Flushes standard output. Fails if it cannot be written.
inline void flushOutput() {
  if (std::fflush(stdout) != 0) host::fail("{}", kCannotWrite);
}

}  // namespace cli
