// SPDX-License-Identifier: MIT
#include "runeflow/devices/device_catalog.h"

#include <iterator>
#include <list>
#include <ranges>
#include <utility>

#include "runeflow/devices/apple_json_p.h"
#include "runeflow/platform/host_p.h"
#include "runeflow/platform/process_p.h"

namespace runeflow::DeviceCatalog {
namespace {

constexpr const char* kXcrun = "/usr/bin/xcrun";
constexpr std::string_view kRuntimeMarker = ".SimRuntime.";

std::optional<Bytes> runXcrun(const std::vector<std::string>& arguments) {
  auto result = runProcess(kXcrun, arguments, StandardOutput::captured);
  if (!result || result->exitStatus != 0) return std::nullopt;
  return std::move(result->output);
}

using Parser = std::vector<SourceRef> (*)(std::span<const std::uint8_t>);

Async<std::vector<SourceRef>> discover(bool enabled, std::vector<std::string> arguments,
                                       Parser parse) {
  if (!enabled) return Async<std::vector<SourceRef>>::ready({});
  return Async<std::vector<SourceRef>>([arguments = std::move(arguments), parse] {
    const auto output = runXcrun(arguments);
    return output ? parse(*output) : std::vector<SourceRef>{};
  });
}

// std::string compares bytes as unsigned numbers, which for UTF-8 is the order of code points.
// std::list::sort() is stable; libstdc++ 12's std::stable_sort calls a deprecated function.
std::vector<SourceRef> sortedByName(std::list<SourceRef> sources) {
  sources.sort([](const SourceRef& a, const SourceRef& b) { return a.name < b.name; });
  return {std::make_move_iterator(sources.begin()), std::make_move_iterator(sources.end())};
}

SourceRef sourceFrom(SimctlDeviceList::Device&& simulator, const std::string& osVersion) {
  auto symbol =
      SourceRef::symbolForDeviceType(simulator.deviceTypeIdentifier.value_or(simulator.name));
  return {
      .kind = SourceRef::Kind::simulator,
      .id = "sim:" + simulator.udid,
      .name = std::move(simulator.name),
      .osVersion = osVersion,
      .udid = std::move(simulator.udid),
      .streamable = true,
      .symbol = std::move(symbol),
  };
}

bool isSelectable(const DevicectlOutput::HardwareProperties& hardware) {
  return hardware.reality == "physical" && hardware.platform != "macOS" &&
         hardware.deviceType != "Mac";
}

std::string firstOf(const std::optional<std::string>& first,
                    const std::optional<std::string>& second, const char* otherwise) {
  return first ? *first : second.value_or(otherwise);
}

SourceRef sourceFrom(const DevicectlOutput::Device& device,
                     const DevicectlOutput::HardwareProperties& hardware) {
  const auto properties = device.deviceProperties.value_or(DevicectlOutput::DeviceProperties{});
  const auto connection =
      device.connectionProperties.value_or(DevicectlOutput::ConnectionProperties{});
  const auto& identity = device.identifier ? device.identifier : hardware.udid;
  auto osVersion = displayPlatform(hardware.platform.value_or(""));
  if (properties.osVersionNumber) osVersion += " " + *properties.osVersionNumber;
  return {
      .kind = SourceRef::Kind::device,
      .id = "device:" + (identity ? *identity : randomUuid()),
      .name = firstOf(properties.name, hardware.marketingName, "Device"),
      .osVersion = std::move(osVersion),
      .udid = hardware.udid,
      .model = hardware.marketingName,
      .streamable = isStreamableDeviceState(hardware.platform, connection.transportType,
                                            connection.tunnelState, connection.pairingState),
      .symbol =
          SourceRef::symbolForDeviceType(firstOf(hardware.deviceType, hardware.marketingName, "")),
  };
}

std::string_view textOf(const auto& range) {
  return {range.begin(), range.end()};
}

}  // namespace

Async<bool> toolExists(std::string tool) {
  return Async<bool>([tool = std::move(tool)] {
    const auto result = runProcess(kXcrun, {"--find", tool}, StandardOutput::discarded);
    return result && result->exitStatus == 0;
  });
}

Async<std::optional<Bytes>> runJSON(std::vector<std::string> arguments) {
  return Async<std::optional<Bytes>>(
      [arguments = std::move(arguments)] { return runXcrun(arguments); });
}

Async<std::vector<SourceRef>> discoverSimulators(bool enabled) {
  return discover(enabled, {"simctl", "list", "devices", "--json"}, parseSimulators);
}

std::vector<SourceRef> parseSimulators(std::span<const std::uint8_t> data) {
  auto list = decodeSimctlDeviceList(data);
  if (!list) return {};
  std::list<SourceRef> sources;
  for (auto& [runtimeKey, simulators] : list->devices) {
    if (!runtimeKey.contains(kRuntimeMarker)) continue;
    const auto osVersion = osLabel(runtimeKey);
    for (auto& simulator : simulators) {
      if (simulator.state == "Booted" && simulator.isAvailable.value_or(true)) {
        sources.push_back(sourceFrom(std::move(simulator), osVersion));
      }
    }
  }
  return sortedByName(std::move(sources));
}

Async<std::vector<SourceRef>> discoverDevices(bool enabled) {
  return discover(enabled,
                  {"devicectl", "list", "devices", "--json-output", "/dev/stdout", "--quiet"},
                  parseDevices);
}

std::vector<SourceRef> parseDevices(std::span<const std::uint8_t> data) {
  const auto output = decodeDevicectlOutput(data);
  if (!output) return {};
  std::list<SourceRef> sources;
  for (const auto& device : output->result.devices) {
    if (device.hardwareProperties && isSelectable(*device.hardwareProperties)) {
      sources.push_back(sourceFrom(device, *device.hardwareProperties));
    }
  }
  return sortedByName(std::move(sources));
}

std::string osLabel(std::string_view fromRuntimeKey) {
  // The split runs from the left. If two markers share a full stop, the second is ordinary text.
  std::string_view runtime;
  for (const auto piece : std::views::split(fromRuntimeKey, kRuntimeMarker))
    runtime = textOf(piece);
  if (runtime.empty()) return "iOS";

  std::string platform;
  std::string version;
  for (const auto piece : std::views::split(runtime, '-')) {
    const auto part = textOf(piece);
    if (part.empty()) continue;
    if (platform.empty()) {
      platform = displayPlatform(part);
    } else {
      version.append(version.empty() ? " " : ".").append(part);
    }
  }
  return platform.empty() ? std::string(runtime) : platform + version;
}

std::string displayPlatform(std::string_view platform) {
  return std::string(platform == "xrOS" ? "visionOS" : platform);
}

bool isStreamableDeviceState(const std::optional<std::string>& platform,
                             const std::optional<std::string>& transportType,
                             const std::optional<std::string>& tunnelState,
                             const std::optional<std::string>& pairingState) {
  return (platform == "iOS" || platform == "iPadOS") && pairingState == "paired" &&
         transportType == "wired" && tunnelState == "connected";
}

}  // namespace runeflow::DeviceCatalog
