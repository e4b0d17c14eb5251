// SPDX-License-Identifier: MIT

// The address of a table on a ClickHouse server, as users type it.
#pragma once

#include <string>
#include <string_view>

namespace fleet {

struct Address {
  std::string server;    // "http://host:8123", without a path
  std::string database;  // a plain identifier, as is `table`
  std::string table;

  // For sentences: the whole address as typed, which holds no password.
  std::string text() const;
};

// Returns whether the argument is meant as an address, not as the path of a local database.
bool isAddress(std::string_view text);

// Reads http[s]://HOST[:PORT]/DATABASE.TABLE. The port is 8123 for http and 8443 for https. Fails
// for anything else. An address with a user or password is refused without being repeated, because
// command lines are visible to other users.
Address parseAddress(const std::string& text);

}  // namespace fleet
