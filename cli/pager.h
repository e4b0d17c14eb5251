// SPDX-License-Identifier: MIT

// The user's pager, $PAGER or less.
#pragma once

#include <cstdio>
#include <string>

namespace cli {

// While the pager runs, this process ignores Ctrl-C, which the pager handles, and SIGPIPE: if the
// user quits the pager early, only the printing ends, with a std::system_error.
class Pager {
 public:
  // Fails if the shell cannot be started.
  Pager();
  ~Pager();
  Pager(const Pager&) = delete;
  Pager& operator=(const Pager&) = delete;

  std::FILE* stream() { return pipe_; }

  // Waits until the user quits. Fails if there is no such pager.
  void wait();

 private:
  std::string command_;
  std::FILE* pipe_ = nullptr;
};

}  // namespace cli
