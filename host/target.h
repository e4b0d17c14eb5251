// Servers as users type them.
#pragma once

#include <cstdint>
#include <string>

namespace host {

struct HostAndPort {
  std::string host;
  std::uint16_t port;
};

// Reads HOST[:PORT], with an IPv6 address in brackets if a port follows. Fails if the text names no
// host or no valid port.
HostAndPort parseTarget(const std::string& target, std::uint16_t defaultPort);

}  // namespace host
