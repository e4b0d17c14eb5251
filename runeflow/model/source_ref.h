// One entry of the list from which a user picks where logs come from on the Apple side.
//
// This machine describes itself with SourceRef::thisMac(); simulators and attached devices are
// found by the device catalog (devices/device_catalog.h). Plain values, free to use on any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace runeflow {

struct SourceRef {
  enum class Kind : std::uint8_t { mac, simulator, device };

  Kind kind;
  std::string id;         // unique among all sources: "mac", "sim:<UDID>" or "device:<identifier>"
  std::string name;       // for the user
  std::string osVersion;  // for the user, e.g. "iOS 17.2"
  std::optional<std::string> udid;   // of a simulator or device
  std::optional<std::string> model;  // a physical device's marketing name
  bool streamable;                   // logs can be captured from it now
  std::string symbol;                // an SF Symbols name

  bool operator==(const SourceRef&) const = default;

  // The machine the library runs on, asked anew on every call.
  static SourceRef thisMac();

  // The icon for a device type or, failing that, any name which tells the type ("Apple TV 4K").
  // What names no known type is a phone.
  static std::string symbolForDeviceType(std::string_view type);
};

}  // namespace runeflow

template <>
struct std::hash<runeflow::SourceRef> {
  std::size_t operator()(const runeflow::SourceRef& source) const noexcept;
};
