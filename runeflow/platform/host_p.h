// SPDX-License-Identifier: MIT

// The name and operating system version of this machine, and random identifiers.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace runeflow {

// A version of an operating system. The fields are not named major and minor because the C library
// defines macros of these names.
struct OsVersion {
  int majorVersion = 0;
  int minorVersion = 0;
  int patchVersion = 0;
  bool operator==(const OsVersion&) const = default;
};

// Returns the machine's network name, or nothing if it has none. Bytes that are not valid UTF-8
// become U+FFFD.
std::optional<std::string> hostName();

// Returns the version of the running kernel, or 0.0.0 if it is unknown.
OsVersion osVersion();

// Reads up to three decimal numbers, separated by full stops, from the start of a kernel's release
// text: "6.1.0-13-amd64" gives 6, 1, 0. If a number is missing or too large for an int, that number
// and all numbers after it are 0.
OsVersion parseOsVersion(std::string_view release);

// Returns "6.1", or "6.1.2" if the patch number is above 0.
std::string versionText(const OsVersion& version);

// Returns a random UUID (RFC 9562, version 4) in the usual text form, with upper-case digits.
std::string randomUuid();

}  // namespace runeflow
