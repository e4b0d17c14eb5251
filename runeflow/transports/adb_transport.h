// A client of the adb server, the daemon of Android's debug bridge on the developer's machine.
//
// It lists the devices that the server knows, chooses one, and opens a stream on which a shell
// command runs on it: normally a logcat whose threadtime text LogcatDecoder reads. The server only
// listens on loopback unless told otherwise; a host that is not loopback is reached as well.
//
//   const auto found = ADBTransport::devices(defaultHost, defaultPort);
//   if (!found) return fail(found.error().message());
//   const auto target = ADBTransport::pickTarget(*found);
//   if (!target) return fail(ADBError::noDevices().message());
//   if (!target->isReady()) return fail(ADBError::deviceNotReady(...).message());
//   const auto fd = ADBTransport::connectLogcat(target->serial, ..., "logcat -v threadtime");
//
// All functions may run on any number of threads at once. Those with a host and a port block their
// thread; only the connection itself has a time limit (3 s for a list, 5 s for a stream), a server
// that accepts and then keeps silent is waited for. A server that closes the connection ends the
// call with an error and raises no SIGPIPE.
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

namespace runeflow::ADBTransport {

inline constexpr std::string_view defaultHost = "127.0.0.1";
inline constexpr std::uint16_t defaultPort = 5037;

// A device or emulator as the server lists it. Text that is not UTF-8 comes with U+FFFD in place.
struct Device {
  std::string serial;
  std::string state;  // "device" when ready; other words ("offline", "unauthorized") when not
  std::optional<std::string> product = std::nullopt;
  std::optional<std::string> model = std::nullopt;
  std::optional<std::string> device = std::nullopt;

  bool isEmulator() const { return serial.starts_with("emulator-"); }
  bool isReady() const { return state == "device"; }
  std::string displayName() const;  // "Pixel_7 (emulator-5554)", or the serial alone

  bool operator==(const Device&) const = default;
};

class ADBError {
 public:
  struct ServerUnreachable {
    std::string text;  // a complete sentence, as in the next two
    bool operator==(const ServerUnreachable&) const = default;
  };
  struct ProtocolFailure {
    std::string text;
    bool operator==(const ProtocolFailure&) const = default;
  };
  struct DeviceNotFound {
    std::string text;
    bool operator==(const DeviceNotFound&) const = default;
  };
  struct DeviceNotReady {
    std::string serial;
    std::string state;
    bool operator==(const DeviceNotReady&) const = default;
  };
  struct NoDevices {
    bool operator==(const NoDevices&) const = default;
  };
  using Value =
      std::variant<ServerUnreachable, ProtocolFailure, DeviceNotFound, DeviceNotReady, NoDevices>;

  static ADBError serverUnreachable(std::string text) {
    return ADBError(ServerUnreachable{std::move(text)});
  }
  static ADBError protocolFailure(std::string text) {
    return ADBError(ProtocolFailure{std::move(text)});
  }
  static ADBError deviceNotFound(std::string text) {
    return ADBError(DeviceNotFound{std::move(text)});
  }
  // The next two are for callers of pickTarget; no function here returns them.
  static ADBError deviceNotReady(std::string serial, std::string state) {
    return ADBError(DeviceNotReady{std::move(serial), std::move(state)});
  }
  static ADBError noDevices() { return ADBError(NoDevices{}); }

  const Value& value() const { return value_; }

  // For the user.
  std::string message() const;

  bool operator==(const ADBError&) const = default;

 private:
  explicit ADBError(Value value) : value_(std::move(value)) {}
  Value value_;
};

// The devices in the server's order; an empty list when there is none.
std::expected<std::vector<Device>, ADBError> devices(std::string_view host, std::uint16_t port);

// Starts `command` in the device's shell. The descriptor, in blocking mode, yields the command's
// output and ends with the command or with the device. The caller owns it: it closes it, or hands
// it to a CaptureSession, which closes it at the end of its reader. Closing it ends the command.
std::expected<int, ADBError> connectLogcat(std::string_view serial, std::string_view host,
                                           std::uint16_t port, std::string_view command);

// With a serial, the device of exactly that serial in whatever state. Without (or with an empty
// one) the first ready emulator, else the first ready device, else the first device, which is then
// not ready.
std::optional<Device> pickTarget(std::span<const Device> devices,
                                 std::optional<std::string_view> serial = std::nullopt);

}  // namespace runeflow::ADBTransport
