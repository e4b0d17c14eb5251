// SPDX-License-Identifier: MIT

// The steps of SocketTransport::connect() other than name resolution.
#pragma once

#include <netdb.h>

#include <expected>
#include <optional>

#include "runeflow/platform/file_descriptor.h"
#include "runeflow/transports/socket_transport.h"

namespace runeflow::SocketTransport {

// Returns `seconds` as whole milliseconds for poll(). Never returns a negative number, which poll()
// takes as an infinite wait. Absent if `seconds` is NaN.
std::optional<int> pollTimeout(double seconds);

// Tries the addresses of the list in turn, each for up to `timeoutMs` milliseconds. A null pointer
// is an empty list. If no address connects, returns the error of the last one.
std::expected<FileDescriptor, ConnectError> connectToFirst(const addrinfo* addresses,
                                                           int timeoutMs);

}  // namespace runeflow::SocketTransport
