// SPDX-License-Identifier: MIT

// The device lists that the developer tools print as JSON. The structures hold only the keys that
// the catalog reads.
//
// Decoding is strict. Keys are matched exactly, and unknown keys are ignored. An optional key may
// be missing or null. A missing required key or a value of the wrong type anywhere makes the whole
// document malformed. If an object repeats a key, the last value counts.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace runeflow {

// `simctl list devices --json`
struct SimctlDeviceList {
  struct Device {
    std::string udid;
    std::string name;
    std::string state;
    std::optional<bool> isAvailable;
    std::optional<std::string> deviceTypeIdentifier;
  };
  std::map<std::string, std::vector<Device>> devices;  // by runtime key
};

// `devicectl list devices --json-output`
struct DevicectlOutput {
  struct DeviceProperties {
    std::optional<std::string> name;
    std::optional<std::string> osVersionNumber;
  };
  struct HardwareProperties {
    std::optional<std::string> marketingName;
    std::optional<std::string> deviceType;
    std::optional<std::string> platform;
    std::optional<std::string> reality;
    std::optional<std::string> udid;
  };
  struct ConnectionProperties {
    std::optional<std::string> transportType;
    std::optional<std::string> tunnelState;
    std::optional<std::string> pairingState;
  };
  struct Device {
    std::optional<std::string> identifier;
    std::optional<DeviceProperties> deviceProperties;
    std::optional<HardwareProperties> hardwareProperties;
    std::optional<ConnectionProperties> connectionProperties;
  };
  struct Result {
    std::vector<Device> devices;
  };
  Result result;
};

// Both decoders expect one JSON value in UTF-8, nested at most 512 levels deep. Absent if the
// document is malformed. Memory use is proportional to the size of the document.
std::optional<SimctlDeviceList> decodeSimctlDeviceList(std::span<const std::uint8_t> bytes);
std::optional<DevicectlOutput> decodeDevicectlOutput(std::span<const std::uint8_t> bytes);

}  // namespace runeflow
