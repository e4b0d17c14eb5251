// A thread that runs on its own, with the attributes std::thread cannot give.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

namespace runeflow {

struct ThreadAttributes {
  std::string name;       // Linux keeps the first 15 bytes
  std::size_t stackSize;  // bytes
};

// Runs `body` on a new detached thread; what it captures is destroyed there when it ends. The
// thread takes no asynchronous signals, so that a host's handler never interrupts its system calls.
// False when the system gives no thread; `body` is then untouched.
bool startThread(const ThreadAttributes& attributes, std::move_only_function<void()>& body);

}  // namespace runeflow
