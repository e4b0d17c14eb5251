// SPDX-License-Identifier: MIT
/// \file
/// Finds the Apple log sources that a user can select, except this machine: booted simulators, and
/// the phones, tablets and other devices that the Apple developer tools know.
///
///     const auto sources = DeviceCatalog::discoverSimulators(true).get();
///
/// The discover functions run the developer tools through /usr/bin/xcrun and read the JSON that the
/// tools print. The parse functions only read JSON.
///
/// No function reports an error. If a tool is missing, fails or prints malformed JSON, the discover
/// functions find nothing. Nothing is kept between calls. Any number of threads may call the
/// functions at once. A function that returns an Async returns at once and runs the tool on a
/// thread of its own (see platform/background.h), without a time limit.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "runeflow/model/source_ref.h"
#include "runeflow/platform/api.h"
#include "runeflow/platform/background.h"

/// Finds Apple simulators and devices.
namespace runeflow::DeviceCatalog {

/// Finds the simulators that are booted. Runs no tool and finds none if `enabled` is false.
RUNEFLOW_EXPORT Async<std::vector<SourceRef>> discoverSimulators(bool enabled);

/// Finds the physical devices except Macs. Runs no tool and finds none if `enabled` is false.
RUNEFLOW_EXPORT Async<std::vector<SourceRef>> discoverDevices(bool enabled);

/// Reads the simulators that are booted from `data`, the output of "simctl list devices --json".
/// The result is empty if any entry is malformed, even an entry that would not be listed.
///
/// The result is sorted by name, in the order of code points. Simulators with equal names are
/// sorted by the bytes of their runtime keys. Within one runtime they are in the order of the
/// document.
RUNEFLOW_EXPORT std::vector<SourceRef> parseSimulators(std::span<const std::uint8_t> data);

/// Reads the physical devices except Macs from `data`, the output of "devicectl list devices
/// --json-output". The result is empty if any entry is malformed, even an entry that would not be
/// listed.
///
/// The result is sorted by name, in the order of code points. Devices with equal names are in the
/// order of the document. A device without an identifier in the document gets a random id, a
/// different one on each call.
RUNEFLOW_EXPORT std::vector<SourceRef> parseDevices(std::span<const std::uint8_t> data);

/// Returns true if logs can be streamed from a device: `platform` is "iOS" or "iPadOS" (a phone or
/// tablet), `transportType` is "wired", `tunnelState` is "connected" and `pairingState` is
/// "paired". Returns false if any argument is absent.
RUNEFLOW_EXPORT bool isStreamableDeviceState(const std::optional<std::string>& platform,
                                             const std::optional<std::string>& transportType,
                                             const std::optional<std::string>& tunnelState,
                                             const std::optional<std::string>& pairingState);

/// Returns the name and version of the operating system that a simctl runtime key names: "iOS 17.2"
/// for "com.apple.CoreSimulator.SimRuntime.iOS-17-2".
RUNEFLOW_EXPORT std::string osLabel(std::string_view fromRuntimeKey);

/// Returns the name under which a platform is sold: "visionOS" for "xrOS". Returns every other name
/// unchanged.
RUNEFLOW_EXPORT std::string displayPlatform(std::string_view platform);

/// Returns true if xcrun finds the developer tool named `tool`.
RUNEFLOW_EXPORT Async<bool> toolExists(std::string tool);

/// The bytes that a tool printed.
using Bytes = std::vector<std::uint8_t>;

/// Runs xcrun with `arguments` and returns its standard output, unparsed. The result is absent if
/// xcrun cannot be started or does not exit with status 0.
RUNEFLOW_EXPORT Async<std::optional<Bytes>> runJSON(std::vector<std::string> arguments);

}  // namespace runeflow::DeviceCatalog
