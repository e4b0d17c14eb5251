// SPDX-License-Identifier: MIT
#include "host/pipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "host/failure.h"

namespace host {

Pipe openPipe() {
  std::array<int, 2> ends{};
  if (::pipe(ends.data()) != 0) fail("cannot make a pipe: {}", systemError(errno));
  Pipe pipe{runeflow::FileDescriptor(ends[0]), runeflow::FileDescriptor(ends[1])};
  for (const int end : ends) ::fcntl(end, F_SETFD, FD_CLOEXEC);
  return pipe;
}

}  // namespace host
