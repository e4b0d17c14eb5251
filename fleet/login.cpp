// SPDX-License-Identifier: MIT

#include "fleet/login.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>

#include "host/failure.h"

namespace fleet {
namespace {

std::string variable(const char* name) {
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nothing sets variables
  return value ? value : "";
}

std::string line(std::istream& file) {
  std::string text;
  std::getline(file, text);
  if (text.ends_with('\r')) text.pop_back();
  return text;
}

}  // namespace

Login readLogin() {
  Login login{variable("RUNEFLOW_USER"), variable("RUNEFLOW_PASSWORD"),
              variable("RUNEFLOW_CA_FILE")};
  const auto path = variable("RUNEFLOW_LOGIN_FILE");
  if (path.empty()) return login;
  struct stat status{};
  std::ifstream file(path);
  if (::stat(path.c_str(), &status) != 0 || !file) {
    host::fail("cannot read the login file {}: {}", path, host::systemError(errno));
  }
  if ((status.st_mode & (S_IRGRP | S_IROTH)) != 0) {
    host::fail("others may read the login file {}; remove their permission with chmod 600", path);
  }
  login.user = line(file);
  login.password = line(file);
  if (login.user.empty()) {
    host::fail("the login file {} must hold the user in line 1 and the password in line 2", path);
  }
  return login;
}

}  // namespace fleet
