// SPDX-License-Identifier: MIT

// Who may ask this server. Loopback is not access control: every page in a browser and every user
// of this machine can connect to it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "http_server.h"

namespace viewer {

// The secrets of one run: a prefix of all paths, and a token, which the printed address carries and
// which becomes a cookie. The cookie's name carries the port and its path is the prefix, because
// browsers send a cookie to every port of a host: servers on other ports neither overwrite nor
// receive it.
class Access {
 public:
  // Takes both secrets from the system. Fails if it gives none.
  explicit Access(std::uint16_t port);

  // "/PREFIX/", below which everything lies.
  const std::string& root() const { return root_; }
  // What the user opens: root() on 127.0.0.1 with the token.
  std::string address() const;

  // Returns the answer to a request that gets nothing else: a refusal, or, for the printed address,
  // the redirection that sets the cookie. Absent if the request may be answered.
  //
  // A request needs the cookie. Its Host must be a name of the loopback interface, because a page
  // that had its own name resolve to 127.0.0.1 carries that name. An Origin must be http:// and
  // this Host, and a browser that says where the request comes from must say "from the same origin"
  // or "from the user". Only GET, HEAD and POST are allowed, and a POST must carry JSON, which a
  // form cannot.
  std::optional<HttpAnswer> refusal(const HttpRequest& request) const;

 private:
  bool isLetIn(const HttpRequest& request) const;

  std::uint16_t port_;
  std::string root_;
  std::string token_;
  std::string cookieName_;
};

// The headers of every answer: nothing is executed or loaded but the page's own files, nothing is
// kept by caches, nothing is framed or given to other origins.
const std::vector<std::pair<std::string, std::string>>& securityHeaders();

// Compares in a time that depends on the lengths only.
bool isSameSecret(std::string_view a, std::string_view b);

}  // namespace viewer
