// SPDX-License-Identifier: MIT
#include "host/target.h"

#include <algorithm>
#include <charconv>
#include <string_view>
#include <system_error>

#include "host/failure.h"

namespace host {

HostAndPort parseTarget(const std::string& target, std::uint16_t defaultPort) {
  std::string_view host = target;
  std::string_view port;
  const auto bracket = target.starts_with('[') ? target.find(']') : std::string::npos;
  if (bracket != std::string::npos) {
    host = std::string_view(target).substr(1, bracket - 1);
    port = std::string_view(target).substr(bracket + 1);
  } else if (std::ranges::count(target, ':') == 1) {  // an IPv6 address has more
    host = host.substr(0, target.find(':'));
    port = std::string_view(target).substr(host.size());
  }
  if (host.empty()) fail("'{}' names no host; write HOST or HOST:PORT", target);
  if (host.find_first_of("[]") != std::string_view::npos) {
    fail("'{}' has a bracket without its counterpart; write [ADDRESS]:PORT", target);
  }
  if (port.empty()) return {std::string(host), defaultPort};
  std::uint16_t number = 0;
  const char* end = port.data() + port.size();
  const auto parsed = std::from_chars(port.data() + 1, end, number);
  if (port.front() != ':' || parsed.ec != std::errc() || parsed.ptr != end || number == 0) {
    fail("'{}' has no valid port; ports go from 1 to 65535", target);
  }
  return {std::string(host), number};
}

}  // namespace host
