// SPDX-License-Identifier: MIT
#include <fmt/format.h>
#include <sys/random.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <cstdint>

#include "runeflow/platform/host_p.h"
#include "runeflow/platform/unicode_p.h"

namespace runeflow {

std::optional<std::string> hostName() {
  std::array<char, 256> name{};
  // gethostname may leave a truncated name without a terminating NUL. The last byte stays 0.
  if (::gethostname(name.data(), name.size() - 1) != 0 || name.front() == '\0') return std::nullopt;
  return unicode::decodeLossily(name.data());
}

OsVersion osVersion() {
  utsname system{};
  return ::uname(&system) == 0 ? parseOsVersion(system.release) : OsVersion{};
}

OsVersion parseOsVersion(std::string_view release) {
  OsVersion version;
  const char* next = release.data();
  const char* const end = next + release.size();
  for (int* number : {&version.majorVersion, &version.minorVersion, &version.patchVersion}) {
    if (next == end || *next == '-') break;  // from_chars would accept a minus sign
    const auto [rest, error] = std::from_chars(next, end, *number);
    if (error != std::errc{} || rest == end || *rest != '.') break;
    next = rest + 1;
  }
  return version;
}

std::string versionText(const OsVersion& version) {
  const auto text = fmt::format("{}.{}", version.majorVersion, version.minorVersion);
  return version.patchVersion > 0 ? fmt::format("{}.{}", text, version.patchVersion) : text;
}

std::string randomUuid() {
  std::array<std::uint8_t, 16> bytes{};
  // Fails only if the kernel has no random numbers at all (ENOSYS). Never returns fewer bytes.
  [[maybe_unused]] const int result = ::getentropy(bytes.data(), bytes.size());
  bytes[6] = static_cast<std::uint8_t>(0x40 | (bytes[6] & 0x0F));  // version 4
  bytes[8] = static_cast<std::uint8_t>(0x80 | (bytes[8] & 0x3F));  // RFC 9562 variant
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const bool opensGroup = i == 4 || i == 6 || i == 8 || i == 10;
    text += fmt::format("{}{:02X}", opensGroup ? "-" : "", bytes[i]);
  }
  return text;
}

}  // namespace runeflow
