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
  std::optional<std::int64_t> size = std::nullopt;  // bytes; only for a regular file
  std::string note = {};                            // a message for the user; may be empty
};

// Opens a file, or standard input if `path` is "-". If `kind` is null, recognises the kind by the
// first bytes of the stream.
Stream openFile(const std::string& path, const LogKind* kind);

// Connects to a DLT daemon. `target` is HOST[:PORT]. An IPv6 address needs brackets if a port
// follows.
Stream connectToDlt(const std::string& target);

// Connects to the adb server `target` and starts `command` on the device with that serial. If the
// serial is empty, uses the device that ADBTransport::pickTarget() returns. If there are several
// devices, the stream's note names it.
Stream connectToAdb(const std::string& target, const std::string& serial,
                    const std::string& command);

}  // namespace host
