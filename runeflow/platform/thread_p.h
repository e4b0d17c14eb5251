// SPDX-License-Identifier: MIT

// Starts detached threads with attributes that std::thread cannot set.
#pragma once

#include <cstddef>
#include <string>

#include "runeflow/platform/unique_function.h"

namespace runeflow {

struct ThreadAttributes {
  std::string name;       // cut to its first 15 bytes, Linux's limit
  std::size_t stackSize;  // bytes
};

// Runs `body` on a new detached thread. When `body` returns, its captures are destroyed on that
// thread. The thread blocks all asynchronous signals, which keeps the signal handlers of the host
// (the program that uses the library) from interrupting its system calls. Returns false, and leaves
// `body` unchanged, if the system cannot create a thread.
bool startThread(const ThreadAttributes& attributes, UniqueFunction<void()>& body);

}  // namespace runeflow
