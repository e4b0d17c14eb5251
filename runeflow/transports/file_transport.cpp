// SPDX-License-Identifier: MIT
#include "runeflow/transports/file_transport.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

namespace runeflow::FileTransport {

int openForReading(std::string_view path) {
  // open() would stop at the NUL and open a file other than the requested one.
  if (path.find('\0') != std::string_view::npos) {
    errno = ENOENT;
    return -1;
  }
  return ::open(std::string(path).c_str(), O_RDONLY);
}

std::optional<OpenFile> openForReadingWithSize(std::string_view path) {
  const int fd = openForReading(path);
  if (fd < 0) return std::nullopt;
  struct stat status{};
  return OpenFile{fd, ::fstat(fd, &status) == 0 ? status.st_size : 0};
}

}  // namespace runeflow::FileTransport
