// SPDX-License-Identifier: MIT

// The user and password for a ClickHouse server. They come from the environment or from a file,
// never from the command line, and no sentence repeats them.
#pragma once

#include <string>

namespace fleet {

struct Login {
  std::string user;  // if empty, the server takes its default user
  std::string password;
  std::string authorities;  // a file with the certificates to trust; empty for those of the system
};

// Reads RUNEFLOW_USER and RUNEFLOW_PASSWORD, or the two lines of the file that RUNEFLOW_LOGIN_FILE
// names, and RUNEFLOW_CA_FILE. Fails if that file cannot be read or others may read it.
Login readLogin();

}  // namespace fleet
