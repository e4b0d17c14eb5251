// Finds the Apple log sources a user can pick besides this machine: simulators that run, and
// phones, tablets and the like known to the developer tools.
//
// The discover functions run the tools through xcrun and read the JSON they print; the parse
// functions do the reading alone. Nothing is kept between calls, nothing is reported as an error: a
// tool that is missing or fails, or prints what cannot be read, finds nothing. Every function may
// be called on any thread, by several at once. Those that give an Async return at once and do their
// work on a thread of their own (see platform/background.h), for as long as the tool takes.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "runeflow/model/source_ref.h"
#include "runeflow/platform/background.h"

namespace runeflow::DeviceCatalog {

using Bytes = std::vector<std::uint8_t>;

// Whether xcrun finds the developer tool of that name.
Async<bool> toolExists(std::string tool);

// What "xcrun ARGUMENTS…" prints on its standard output; absent when it cannot be started or does
// not exit with status 0.
Async<std::optional<Bytes>> runJSON(std::vector<std::string> arguments);

// The simulators that are booted. Runs nothing unless `enabled`.
Async<std::vector<SourceRef>> discoverSimulators(bool enabled);

// The same from the output of "simctl list devices --json". Sorted by name, by code point; equal
// names stay in the order of their runtime keys' bytes, then of the document. One malformed entry
// anywhere, shown or not, and the result is empty.
std::vector<SourceRef> parseSimulators(std::span<const std::uint8_t> data);

// The physical devices except Macs. Runs nothing unless `enabled`.
Async<std::vector<SourceRef>> discoverDevices(bool enabled);

// The same from the output of "devicectl list devices --json-output". Sorted by name as above,
// equal names in the order of the document; malformed entries as above. A device that the tool does
// not identify gets a random id, another one on each call.
std::vector<SourceRef> parseDevices(std::span<const std::uint8_t> data);

// "com.apple.CoreSimulator.SimRuntime.iOS-17-2" is "iOS 17.2".
std::string osLabel(std::string_view fromRuntimeKey);

// The name a platform is sold under: "xrOS" is "visionOS", others are as they are.
std::string displayPlatform(std::string_view platform);

// Logs come only from a paired phone or tablet on a wire whose tunnel is up. An absent text fails.
bool isStreamableDeviceState(const std::optional<std::string>& platform,
                             const std::optional<std::string>& transportType,
                             const std::optional<std::string>& tunnelState,
                             const std::optional<std::string>& pairingState);

}  // namespace runeflow::DeviceCatalog
