// The part of SocketTransport that follows the resolver.
#pragma once

#include <netdb.h>

#include <expected>
#include <optional>

#include "runeflow/platform/file_descriptor.h"
#include "runeflow/transports/socket_transport.h"

namespace runeflow::SocketTransport {

// Whole milliseconds for poll(), never its negative "without end"; absent for what is not a number.
std::optional<int> pollTimeout(double seconds);

// Tries the addresses of the list (null for an empty one) in turn, each for up to `timeoutMs`.
std::expected<FileDescriptor, ConnectError> connectToFirst(const addrinfo* addresses,
                                                           int timeoutMs);

}  // namespace runeflow::SocketTransport
