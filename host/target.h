// SPDX-License-Identifier: MIT

// Reads the addresses of servers that users type.
#pragma once

#include <cstdint>
#include <string>

namespace host {

struct HostAndPort {
  std::string host;
  std::uint16_t port;
};

// Reads HOST[:PORT]. An IPv6 address needs brackets if a port follows. Fails if the text has no
// host or an invalid port.
HostAndPort parseTarget(const std::string& target, std::uint16_t defaultPort);

}  // namespace host
