// SPDX-License-Identifier: MIT
/// \file
/// A reference to one Apple log source that the user can select: the Mac, a simulator or a device.
///
/// SourceRef::thisMac() describes the machine that the library runs on, also if that machine is not
/// a Mac. The functions of devices/device_catalog.h find simulators and attached devices. A
/// SourceRef is a plain value and may be used on any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "runeflow/platform/api.h"

namespace runeflow {

/// A selectable log source.
struct RUNEFLOW_EXPORT SourceRef {
  /// The kind of machine that logs.
  enum class Kind : std::uint8_t {
    mac,        ///< The machine that the library runs on.
    simulator,  ///< A simulated device on this machine.
    device,     ///< A physical device.
  };

  Kind kind;  ///< The kind of machine.
  /// Unique among all sources: "mac", "sim:<UDID>" or "device:<identifier>".
  std::string id;
  std::string name;       ///< The name shown to the user.
  std::string osVersion;  ///< The operating system shown to the user, for example "iOS 17.2".
  /// The unique device identifier (UDID) of a simulator or device. Absent for the Mac, and for a
  /// device whose UDID the developer tools do not report.
  std::optional<std::string> udid = std::nullopt;
  /// The marketing name of a device. Absent for other kinds, and if the developer tools report
  /// none.
  std::optional<std::string> model = std::nullopt;
  bool streamable;     ///< True if logs can be streamed from the source at present.
  std::string symbol;  ///< The SF Symbols name of the source's icon.

  bool operator==(const SourceRef&) const = default;

  /// Returns the machine that the library runs on. Asks the system again on every call. `name` is
  /// the machine's network name, or "This Mac" if it has none. `osVersion` is "macOS " followed by
  /// the version of the running kernel, on every system.
  static SourceRef thisMac();

  /// Returns the SF Symbols name of the icon for `type`, a device type or a name that contains one,
  /// such as "Apple TV 4K". Letter case does not matter. Returns "iphone" if `type` contains no
  /// known device type.
  static std::string symbolForDeviceType(std::string_view type);
};

}  // namespace runeflow

/// Hashes all fields of a SourceRef.
template <>
struct RUNEFLOW_EXPORT std::hash<runeflow::SourceRef> {
  /// Returns the hash of `source`.
  std::size_t operator()(const runeflow::SourceRef& source) const noexcept;
};
