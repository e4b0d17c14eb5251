// SPDX-License-Identifier: MIT
#include <nlohmann/json.hpp>

#include "runeflow/devices/apple_json_p.h"

namespace runeflow {
namespace {

using nlohmann::json;

constexpr int kDeepestNesting = 512;

// Returns true if the parser can be run on `bytes` safely. Refuses deep nesting, because the parser
// uses memory for every open bracket, and NULs, because it takes a NUL for the end of the document.
bool isHarmless(std::span<const std::uint8_t> bytes) {
  int depth = 0;
  bool inString = false;
  bool escaped = false;
  for (const auto byte : bytes) {
    if (byte == 0) return false;
    if (escaped) {
      escaped = false;
    } else if (byte == '"') {
      inString = !inString;
    } else if (inString) {
      escaped = byte == '\\';
    } else if (byte == '[' || byte == '{') {
      if (++depth > kDeepestNesting) return false;
    } else if (byte == ']' || byte == '}') {
      --depth;
    }
  }
  return true;
}

// The readers below throw nlohmann's exceptions if a value has the wrong type or a required key is
// missing.
template <class T>
void readOptional(const json& value, const char* key, std::optional<T>& field) {
  const auto& object = value.get_ref<const json::object_t&>();
  const auto found = object.find(key);
  if (found != object.end() && !found->second.is_null()) field = found->second.get<T>();
}

template <class Document>
std::optional<Document> decode(std::span<const std::uint8_t> bytes) {
  if (!isHarmless(bytes)) return std::nullopt;
  try {
    // libc++ has no std::char_traits<unsigned char>, which the parser wants of the element type.
    const auto* const text = reinterpret_cast<const char*>(bytes.data());
    return json::parse(text, text + bytes.size()).template get<Document>();
  } catch (const json::exception&) {
    return std::nullopt;
  }
}

}  // namespace

// NOLINTBEGIN(readability-identifier-naming): the JSON library looks for this name.
static void from_json(const json& object, SimctlDeviceList::Device& device) {
  object.at("udid").get_to(device.udid);
  object.at("name").get_to(device.name);
  object.at("state").get_to(device.state);
  readOptional(object, "isAvailable", device.isAvailable);
  readOptional(object, "deviceTypeIdentifier", device.deviceTypeIdentifier);
}

static void from_json(const json& object, SimctlDeviceList& list) {
  object.at("devices").get_to(list.devices);
}

static void from_json(const json& object, DevicectlOutput::DeviceProperties& properties) {
  readOptional(object, "name", properties.name);
  readOptional(object, "osVersionNumber", properties.osVersionNumber);
}

static void from_json(const json& object, DevicectlOutput::HardwareProperties& properties) {
  readOptional(object, "marketingName", properties.marketingName);
  readOptional(object, "deviceType", properties.deviceType);
  readOptional(object, "platform", properties.platform);
  readOptional(object, "reality", properties.reality);
  readOptional(object, "udid", properties.udid);
}

static void from_json(const json& object, DevicectlOutput::ConnectionProperties& properties) {
  readOptional(object, "transportType", properties.transportType);
  readOptional(object, "tunnelState", properties.tunnelState);
  readOptional(object, "pairingState", properties.pairingState);
}

static void from_json(const json& object, DevicectlOutput::Device& device) {
  readOptional(object, "identifier", device.identifier);
  readOptional(object, "deviceProperties", device.deviceProperties);
  readOptional(object, "hardwareProperties", device.hardwareProperties);
  readOptional(object, "connectionProperties", device.connectionProperties);
}

static void from_json(const json& object, DevicectlOutput& output) {
  object.at("result").at("devices").get_to(output.result.devices);
}
// NOLINTEND(readability-identifier-naming)

std::optional<SimctlDeviceList> decodeSimctlDeviceList(std::span<const std::uint8_t> bytes) {
  return decode<SimctlDeviceList>(bytes);
}

std::optional<DevicectlOutput> decodeDevicectlOutput(std::span<const std::uint8_t> bytes) {
  return decode<DevicectlOutput>(bytes);
}

}  // namespace runeflow
