// SPDX-License-Identifier: MIT
#include "runeflow/platform/file_descriptor.h"

#include <unistd.h>

namespace runeflow {

void FileDescriptor::reset(int fd) {
  if (fd_ >= 0) ::close(fd_);
  fd_ = fd;
}

}  // namespace runeflow
