// SPDX-License-Identifier: MIT
/// \file
/// A client of the adb server, the part of Android's debug bridge that runs on the developer's
/// machine.
///
/// The functions list the devices that the server knows, choose one, and start a shell command on
/// it. They return the output of the command as a stream. The command is normally a logcat that
/// prints threadtime text, the format that LogcatDecoder reads. By default the server listens only
/// on loopback, but the functions connect to any address. In this example, fail() is a function of
/// the program:
///
///     namespace adb = runeflow::ADBTransport;
///     const auto found = adb::devices(adb::defaultHost, adb::defaultPort);
///     if (!found) return fail(found.error().message());
///     const auto target = adb::pickTarget(*found);
///     if (!target) return fail(adb::ADBError::noDevices().message());
///     if (!target->isReady()) {
///       return fail(adb::ADBError::deviceNotReady(target->serial, target->state).message());
///     }
///     const auto fd = adb::connectLogcat(target->serial, adb::defaultHost, adb::defaultPort,
///                                        "logcat -v threadtime");
///     if (!fd) return fail(fd.error().message());
///
/// Any number of threads may call the functions at once. The functions that take a host and a port
/// block their thread. Connecting is limited to 3 s in devices() and to 5 s in connectLogcat(), for
/// each address of the host. The answer to each request is limited to 5 s. If the server closes the
/// connection, the call returns an error and raises no SIGPIPE.
#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "runeflow/platform/api.h"

/// Lists Android devices and opens streams from them.
namespace runeflow::ADBTransport {

class ADBError;

/// The address on which an adb server listens by default.
inline constexpr std::string_view defaultHost = "127.0.0.1";
/// The TCP port on which an adb server listens by default.
inline constexpr std::uint16_t defaultPort = 5037;

/// A device or emulator as the server lists it. Invalid UTF-8 in a text is replaced by U+FFFD.
struct RUNEFLOW_EXPORT Device {
  std::string serial;  ///< The serial number by which the server addresses the device.
  std::string state;   ///< "device" when ready; otherwise another word ("offline", "unauthorized").
  std::optional<std::string> product = std::nullopt;  ///< The product name, if listed.
  std::optional<std::string> model = std::nullopt;    ///< The model name, if listed.
  std::optional<std::string> device = std::nullopt;   ///< The device code name, if listed.

  /// Returns true if the serial begins with "emulator-".
  bool isEmulator() const { return serial.starts_with("emulator-"); }
  /// Returns true if commands can be run on the device: its state is "device".
  bool isReady() const { return state == "device"; }
  /// Returns a name for the user: "Pixel_7 (emulator-5554)", or the serial if no model is listed.
  std::string displayName() const;

  bool operator==(const Device&) const = default;
};

/// Returns the devices in the server's order. The list is empty if the server knows none. Fails
/// with `ServerUnreachable` or `ProtocolFailure`.
RUNEFLOW_EXPORT std::expected<std::vector<Device>, ADBError> devices(std::string_view host,
                                                                     std::uint16_t port);

/// Chooses a device from `devices`. If `serial` is given, returns the device with exactly that
/// serial, even if it is not ready, or nothing if there is no such device. If `serial` is absent or
/// empty, returns the first ready emulator, else the first ready device, else the first device, or
/// nothing if the list is empty. The caller must check whether the chosen device is ready.
RUNEFLOW_EXPORT std::optional<Device> pickTarget(
    std::span<const Device> devices, std::optional<std::string_view> serial = std::nullopt);

/// Starts `command` in the shell of the device with `serial`. Returns a file descriptor, in
/// blocking mode, that yields the command's output. The stream ends when the command ends or the
/// device goes away. Closing the descriptor ends the command.
///
/// The caller owns the descriptor. The caller closes it or passes it to CaptureSession::run(),
/// whose reader closes it when it ends. Fails with `ServerUnreachable`, `DeviceNotFound` or
/// `ProtocolFailure`.
RUNEFLOW_EXPORT std::expected<int, ADBError> connectLogcat(std::string_view serial,
                                                           std::string_view host,
                                                           std::uint16_t port,
                                                           std::string_view command);

/// The error of devices() and connectLogcat().
class RUNEFLOW_EXPORT ADBError {
 public:
  /// Connecting to the server failed, or the connection broke before the server answered.
  struct ServerUnreachable {
    std::string text;  ///< A complete sentence for the user.
    bool operator==(const ServerUnreachable&) const = default;
  };
  /// The server rejected a request, or its answer could not be read.
  struct ProtocolFailure {
    std::string text;  ///< The server's own text, or a phrase of the library if it sent none.
    bool operator==(const ProtocolFailure&) const = default;
  };
  /// The server does not know the device.
  struct DeviceNotFound {
    std::string text;  ///< The server's own text.
    bool operator==(const DeviceNotFound&) const = default;
  };
  /// The device is listed but not ready. No function here returns this case; it serves callers of
  /// pickTarget().
  struct DeviceNotReady {
    std::string serial;  ///< The device's serial.
    std::string state;   ///< The device's state in the list.
    bool operator==(const DeviceNotReady&) const = default;
  };
  /// No device is listed. No function here returns this case; it serves callers of pickTarget().
  struct NoDevices {
    bool operator==(const NoDevices&) const = default;
  };
  /// One of the five cases.
  using Value =
      std::variant<ServerUnreachable, ProtocolFailure, DeviceNotFound, DeviceNotReady, NoDevices>;

  /// Makes a `ServerUnreachable`; `text` is a complete sentence for the user.
  static ADBError serverUnreachable(std::string text) {
    return ADBError(ServerUnreachable{std::move(text)});
  }
  /// Makes a `ProtocolFailure`; message() puts "adb protocol error: " before `text`.
  static ADBError protocolFailure(std::string text) {
    return ADBError(ProtocolFailure{std::move(text)});
  }
  /// Makes a `DeviceNotFound`; `text` is shown to the user unchanged.
  static ADBError deviceNotFound(std::string text) {
    return ADBError(DeviceNotFound{std::move(text)});
  }
  /// Makes a `DeviceNotReady`.
  static ADBError deviceNotReady(std::string serial, std::string state) {
    return ADBError(DeviceNotReady{std::move(serial), std::move(state)});
  }
  /// Makes a `NoDevices`.
  static ADBError noDevices() { return ADBError(NoDevices{}); }

  /// Returns the case, to be visited. The reference is valid as long as the error.
  const Value& value() const { return value_; }

  /// Returns a message for the user.
  std::string message() const;

  bool operator==(const ADBError&) const = default;

 private:
  explicit ADBError(Value value) : value_(std::move(value)) {}
  Value value_;
};

}  // namespace runeflow::ADBTransport
