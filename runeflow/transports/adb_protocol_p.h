// The conversation with the adb server over a connected stream socket.
//
// A request goes out as its length in four hexadecimal digits and its bytes; the answer is "OKAY"
// or another word of four bytes with a reason behind it, written like a request. Nothing here
// closes the socket.
#pragma once

#include <cstdint>
#include <expected>
#include <string_view>
#include <vector>

#include "runeflow/transports/adb_transport.h"

namespace runeflow::ADBTransport {

// Asks for the list of devices. `host` and `port` only serve the messages.
std::expected<std::vector<Device>, ADBError> requestDevices(int socket, std::string_view host,
                                                            std::uint16_t port);

// Asks for a service; on success nothing behind the "OKAY" has been read.
std::expected<void, ADBError> requestService(int socket, std::string_view request);

std::vector<Device> parseDeviceList(std::string_view text);

}  // namespace runeflow::ADBTransport
