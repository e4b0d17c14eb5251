// SPDX-License-Identifier: MIT

// The byte streams that a capture reads: files, standard input, a DLT daemon, the adb server.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/log_kind.h"
#include "host/unpacker.h"
#include "runeflow/platform/file_descriptor.h"

namespace host {

// An open stream, and the bytes of the log that were read from it to recognise its kind.
struct Stream {
  runeflow::FileDescriptor fd;
  std::string name;     // for messages
  const LogKind* kind;  // not null after the functions below have returned
  std::vector<std::uint8_t> head = {};
  std::optional<std::int64_t> size = std::nullopt;  // bytes of the log, if it is known
  bool isLive = false;                              // a connection, which may end at any time
  std::string note = {};                            // for the user, if not empty
  Unpacker unpacker = {};                           // of what the stream holds behind `head`
  std::string path = {};                            // of a regular file
};

// Opens a file, or standard input if `path` is "-". If `kind` is null, recognises the kind by the
// first bytes of the stream, and fails if there is none that can be captured. A kind that is given
// overrides them; the stream's note then warns.
Stream openFile(const std::string& path, const LogKind* kind);

// Returns the kind of log in the regular file at `path`, by its first bytes. Null if there is none.
const LogKind* kindOfFile(const std::string& path);

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
