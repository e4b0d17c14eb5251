// SPDX-License-Identifier: MIT

#include "fleet/address.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/failure.h"
#include "host/target.h"

namespace fleet {
namespace {

constexpr std::string_view kHttp = "http://";
constexpr std::string_view kHttps = "https://";
constexpr std::uint16_t kHttpPort = 8123;
constexpr std::uint16_t kHttpsPort = 8443;

bool isIdentifier(std::string_view text) {
  const auto isLetter = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
  };
  const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  return !text.empty() && !isDigit(text.front()) &&
         std::ranges::all_of(text, [&](char c) { return isLetter(c) || isDigit(c); });
}

// Only these may reach the URL that libcurl reads.
bool isHostName(std::string_view host) {
  constexpr std::string_view kOthers = ".-_:%";
  return std::ranges::all_of(host, [&](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           kOthers.find(c) != std::string_view::npos;
  });
}

}  // namespace

bool isAddress(std::string_view text) {
  return text.starts_with(kHttp) || text.starts_with(kHttps);
}

std::string Address::text() const {
  return fmt::format("{}/{}.{}", server, database, table);
}

Address parseAddress(const std::string& text) {
  const bool isSecure = text.starts_with(kHttps);
  const auto scheme = isSecure ? kHttps : kHttp;
  if (!isAddress(text)) {
    host::fail("'{}' is not the address of a table; write http://HOST:8123/DATABASE.TABLE", text);
  }
  const auto rest = std::string_view(text).substr(scheme.size());
  if (rest.find('@') != std::string_view::npos) {
    host::fail(
        "the address must not hold a user or password, which others could see; put them into "
        "RUNEFLOW_USER and RUNEFLOW_PASSWORD, or into the file that RUNEFLOW_LOGIN_FILE names");
  }
  const auto slash = std::min(rest.find('/'), rest.size());
  const auto name = rest.substr(std::min(slash + 1, rest.size()));
  const auto dot = name.find('.');
  const auto table = dot == std::string_view::npos ? std::string_view() : name.substr(dot + 1);
  if (!isIdentifier(name.substr(0, dot)) || !isIdentifier(table)) {
    host::fail(
        "'{}' names no table; write {}HOST:PORT/DATABASE.TABLE with names of letters, digits and _",
        text, scheme);
  }
  const auto [host, port] =
      host::parseTarget(std::string(rest.substr(0, slash)), isSecure ? kHttpsPort : kHttpPort);
  if (!isHostName(host)) host::fail("'{}' is not a valid name of a host", host);
  const bool isIpv6 = host.find(':') != std::string::npos;
  return {fmt::format("{}{}{}{}:{}", scheme, isIpv6 ? "[" : "", host, isIpv6 ? "]" : "", port),
          std::string(name.substr(0, dot)), std::string(table)};
}

}  // namespace fleet
