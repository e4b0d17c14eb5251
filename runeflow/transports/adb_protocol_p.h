// SPDX-License-Identifier: MIT

// The adb server's protocol on a connected stream socket.
//
// A request is its length in four hexadecimal digits, followed by its bytes. The answer is "OKAY",
// or another word of four bytes and then a reason, which has a length in front like a request. No
// function here closes the socket.
#pragma once

#include <cstdint>
#include <expected>
#include <string_view>
#include <vector>

#include "runeflow/transports/adb_transport.h"

namespace runeflow::ADBTransport {

// Requests the list of devices. `host` and `port` appear only in the error messages.
std::expected<std::vector<Device>, ADBError> requestDevices(int socket, std::string_view host,
                                                            std::uint16_t port);

// Requests a service. On success, reads nothing after the "OKAY".
std::expected<void, ADBError> requestService(int socket, std::string_view request);

// Returns one device per line of `text`. Skips lines with fewer than two tokens.
std::vector<Device> parseDeviceList(std::string_view text);

}  // namespace runeflow::ADBTransport
