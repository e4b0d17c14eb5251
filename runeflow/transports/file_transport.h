// Saved logs as byte streams: a file opened for reading, to be captured like a live connection.
//
// The caller owns the returned descriptor: it closes it, or hands it to a CaptureSession, which
// closes it at the end of its reader. All functions may run on any thread. A path is UTF-8 text,
// given to the system as it stands.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace runeflow::FileTransport {

struct OpenFile {
  int fd;
  std::int64_t byteCount;  // 0 also when the file's size cannot be told
  bool operator==(const OpenFile&) const = default;
};

// A descriptor in read-only mode; -1 when the file cannot be opened, with errno as open() set it.
// A path that contains a NUL names no file: -1 with errno ENOENT.
int openForReading(std::string_view path);

// The same with the file's present length; absent when the file cannot be opened, errno as above.
std::optional<OpenFile> openForReadingWithSize(std::string_view path);

}  // namespace runeflow::FileTransport
