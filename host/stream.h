// SPDX-License-Identifier: MIT

// The byte streams that a capture reads: files, standard input, a DLT daemon, the adb server.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/log_kind.h"
#include "runeflow/platform/file_descriptor.h"

namespace host {

// An open stream, and the bytes that were read from it to recognise its kind.
struct Stream {
  runeflow::FileDescriptor fd;
  std::string name;     // for messages
  const LogKind* kind;  // not null after the functions below have returned
  std::vector<std::uint8_t> head = {};
  std::optional<std::int64_t> size = std::nullopt;  // bytes, of a regular file
  bool isLive = false;                              // a connection, which may end at any time
  std::string note = {};                            // for the user, if not empty
};

// Opens a file, or standard input if `path` is "-". If `kind` is null, recognises the kind by the
// first bytes of the stream.
Stream openFile(const std::string& path, const LogKind* kind);

// Connects to a DLT daemon. `target` is HOST[:PORT]. An IPv6 address needs brackets if a port
// follows.
Stream connectToDlt(const std::string& target);

// The command that `connectToAdb` runs on the device unless the user names another.
inline constexpr const char* kLogcatCommand = "logcat -v threadtime -b all";

// Connects to the device with that serial. With an empty serial, picks the most likely device;
// if there are several, the stream's note says which.
Stream connectToAdb(const std::string& target, const std::string& serial,
                    const std::string& command);

}  // namespace host
