// SPDX-License-Identifier: MIT
#include "access.h"

#include <fmt/format.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <span>

#include "host/failure.h"

namespace viewer {
namespace {

constexpr std::size_t kSecretBytes = 16;

std::string randomHex() {
  std::array<unsigned char, kSecretBytes> bytes{};
  if (::getentropy(bytes.data(), bytes.size()) != 0) {
    host::fail("cannot read random numbers from the system: {}", host::systemError(errno));
  }
  std::string text;
  for (const auto byte : bytes) text += fmt::format("{:02x}", byte);
  return text;
}

HttpAnswer refused(unsigned int status, std::string_view sentence) {
  return {.status = status, .body = fmt::format("{}\n", sentence), .closes = true};
}

// The name of a Host without its port.
std::string_view nameOf(std::string_view hostAndPort) {
  const auto colon = hostAndPort.rfind(':');
  const auto bracket = hostAndPort.rfind(']');
  if (colon == std::string_view::npos) return hostAndPort;
  if (bracket != std::string_view::npos && colon < bracket) return hostAndPort;
  const auto port = hostAndPort.substr(colon + 1);
  const bool isPort = std::ranges::all_of(port, [](char c) { return c >= '0' && c <= '9'; });
  return isPort ? hostAndPort.substr(0, colon) : hostAndPort;
}

bool isLoopbackName(std::string_view name) {
  constexpr std::string_view kLocalhost = "localhost";
  const bool isLocalhost = std::ranges::equal(name, kLocalhost, [](char a, char b) {
    return (a | (a >= 'A' && a <= 'Z' ? 0x20 : 0)) == b;
  });
  return name == "127.0.0.1" || name == "[::1]" || isLocalhost;
}

// Every header that decides must be there once: two could be read differently by two programs.
bool isFromHere(const HttpRequest& request) {
  if (request.headers.count("host") != 1 || request.headers.count("origin") > 1) return false;
  const auto host = *request.header("host");
  if (!isLoopbackName(nameOf(host))) return false;
  const auto origin = request.header("origin");
  return !origin || *origin == "http://" + host;
}

// Another port of this machine is another origin, but the same site: it may link to the page, not
// load anything of it.
bool isFromAnotherPage(const HttpRequest& request) {
  const auto site = request.header("sec-fetch-site").value_or("none");
  if (site == "none" || site == "same-origin") return false;
  return request.header("sec-fetch-mode").value_or("") != "navigate" ||
         request.header("sec-fetch-dest").value_or("") != "document";
}

}  // namespace

const std::vector<std::pair<std::string, std::string>>& securityHeaders() {
  static const std::vector<std::pair<std::string, std::string>> kHeaders = {
      {"Content-Security-Policy",
       "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
       "img-src 'self' data:; frame-ancestors 'none'; base-uri 'none'; form-action 'none'"},
      {"X-Content-Type-Options", "nosniff"},
      {"X-Frame-Options", "DENY"},
      {"Referrer-Policy", "no-referrer"},
      {"Cross-Origin-Resource-Policy", "same-origin"},
      {"Cross-Origin-Opener-Policy", "same-origin"},
      {"Cache-Control", "no-store"}};
  return kHeaders;
}

bool isSameSecret(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  int difference = 0;
  for (std::size_t i = 0; i < a.size(); ++i) difference |= a[i] ^ b[i];
  return difference == 0;
}

Access::Access(std::uint16_t port)
    : port_(port),
      root_(fmt::format("/{}/", randomHex())),
      token_(randomHex()),
      cookieName_(fmt::format("runeflow_{}", port)) {}

std::string Access::address() const {
  return fmt::format("http://127.0.0.1:{}{}?token={}", port_, root_, token_);
}

// A request may carry several cookies of that name: another server on this port may have set one
// for a wider path.
bool Access::isLetIn(const HttpRequest& request) const {
  bool isFound = false;
  const auto [first, last] = request.headers.equal_range("cookie");
  for (const auto& [name, cookies] : std::ranges::subrange(first, last)) {
    std::string_view rest = cookies;
    while (!rest.empty()) {
      const auto end = std::min(rest.find(';'), rest.size());
      auto cookie = rest.substr(0, end);
      rest.remove_prefix(std::min(end + 1, rest.size()));
      while (cookie.starts_with(' ')) cookie.remove_prefix(1);
      const auto equals = cookie.find('=');
      if (equals == std::string_view::npos || cookie.substr(0, equals) != cookieName_) continue;
      isFound = isSameSecret(cookie.substr(equals + 1), token_) || isFound;
    }
  }
  return isFound;
}

std::optional<HttpAnswer> Access::refusal(const HttpRequest& request) const {
  constexpr std::string_view kOpen =
      "This page is not open to everybody. Open the address that runeflow view has printed.";
  if (!isFromHere(request) || isFromAnotherPage(request)) return refused(403, kOpen);
  const auto token = request.parameter("token");
  if (request.method == "GET" && request.path == root_ && token && isSameSecret(*token, token_)) {
    auto answer = refused(303, "");
    answer.headers.emplace_back("Location", root_);
    answer.headers.emplace_back(
        "Set-Cookie",
        fmt::format("{}={}; Path={}; HttpOnly; SameSite=Strict", cookieName_, token_, root_));
    return answer;
  }
  if (!request.path.starts_with(root_) || !isLetIn(request)) return refused(403, kOpen);
  if (request.method != "GET" && request.method != "HEAD" && request.method != "POST") {
    return refused(405, "There are only GET, HEAD and POST here.");
  }
  if (request.method == "POST") {
    const auto type = request.header("content-type").value_or("");
    if (type != "application/json" && !type.starts_with("application/json;")) {
      return refused(415, "A POST needs a JSON body, with Content-Type: application/json.");
    }
  }
  return std::nullopt;
}

}  // namespace viewer
