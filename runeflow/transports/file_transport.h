// SPDX-License-Identifier: MIT
/// \file
/// Saved logs as byte streams: opens a file, which a CaptureSession then reads like a live
/// connection.
///
/// The caller owns the returned file descriptor. The caller closes it or passes it to
/// CaptureSession::run(), whose reader closes it when it ends. All functions may be called from any
/// thread. A path is UTF-8 text and goes to the operating system unchanged.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "runeflow/platform/api.h"

/// Opens saved logs.
namespace runeflow::FileTransport {

/// Opens the file at `path` and returns a read-only descriptor, which is not closed on exec.
/// Returns -1 if the file cannot be opened; errno is then as open() set it. A path that contains a
/// NUL names no file: the result is -1 with errno ENOENT.
RUNEFLOW_EXPORT int openForReading(std::string_view path);

/// An open file and its length.
struct OpenFile {
  int fd;                  ///< The descriptor, owned by the caller.
  std::int64_t byteCount;  ///< The length in bytes when opened, or 0 if it cannot be determined.
  bool operator==(const OpenFile&) const = default;
};

/// Opens the file as openForReading() does and determines its length. Returns nothing if the file
/// cannot be opened; errno is then set as for openForReading().
RUNEFLOW_EXPORT std::optional<OpenFile> openForReadingWithSize(std::string_view path);

}  // namespace runeflow::FileTransport
