// What this machine says about itself, and identifiers nobody else has.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace runeflow {

// Not called major and minor, which are macros of the C library.
struct OsVersion {
  int majorVersion = 0;
  int minorVersion = 0;
  int patchVersion = 0;
  bool operator==(const OsVersion&) const = default;
};

// The network name as UTF-8; absent when the machine has none.
std::optional<std::string> hostName();

// The running kernel's version.
OsVersion osVersion();

// The up to three decimal numbers that a kernel's release text begins with: "6.1.0-13-amd64" is
// 6, 1, 0. A number that is missing, or too large for an int, is 0, and so are those after it.
OsVersion parseOsVersion(std::string_view release);

// "6.1", or "6.1.2" when the patch number is above 0.
std::string versionText(const OsVersion& version);

// A random (version 4) UUID in the standard form with upper-case digits.
std::string randomUuid();

}  // namespace runeflow
