// The documents of the developer tools' device lists, as far as the catalog reads them.
//
// Decoding is strict: keys are matched exactly, unknown ones are ignored, an optional key may be
// missing or null, and a required key that is missing or a value of another type anywhere spoils
// the whole document. Of a key that an object names twice the last value counts.
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

// Absent when the bytes are not such a document: one JSON value in UTF-8, nested 512 levels deep at
// most. Memory is in proportion to the bytes.
std::optional<SimctlDeviceList> decodeSimctlDeviceList(std::span<const std::uint8_t> bytes);
std::optional<DevicectlOutput> decodeDevicectlOutput(std::span<const std::uint8_t> bytes);

}  // namespace runeflow
