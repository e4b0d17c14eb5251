// SPDX-License-Identifier: MIT
#include "runeflow/transports/adb_transport.h"

#include <fmt/format.h>

#include <algorithm>

#include "runeflow/platform/file_descriptor.h"
#include "runeflow/platform/overloaded_p.h"
#include "runeflow/transports/adb_protocol_p.h"
#include "runeflow/transports/socket_transport.h"

namespace runeflow::ADBTransport {
namespace {

using SocketTransport::ConnectError;

constexpr double kListTimeoutSeconds = 3;
constexpr double kStreamTimeoutSeconds = 5;

ADBError connectionFailure(const ConnectError& error, std::string_view host, std::uint16_t port) {
  return ADBError::serverUnreachable(std::visit(
      overloaded{
          [&](const ConnectError::Failed& failed) {
            return fmt::format("Couldn't connect to the adb server at {}:{}: {}", host, port,
                               failed.text);
          },
          [&](const ConnectError::Refused&) {
            return fmt::format(
                "No adb server is listening on {}:{}. Start an Android emulator (Android Studio "
                "launches the adb server automatically), or run `adb start-server`.",
                host, port);
          },
          [&](const ConnectError::Unreachable&) {
            return fmt::format(
                "Couldn't reach the adb server at {}:{} — check the address and that the server "
                "is running.",
                host, port);
          },
      },
      error.value()));
}

std::expected<FileDescriptor, ADBError> connectToServer(std::string_view host, std::uint16_t port,
                                                        double timeoutSeconds) {
  const auto socket = SocketTransport::connect(host, port, timeoutSeconds);
  if (!socket) return std::unexpected(connectionFailure(socket.error(), host, port));
  return FileDescriptor(*socket);
}

std::optional<Device> firstOf(std::span<const Device> devices, auto&& condition) {
  const auto found = std::ranges::find_if(devices, condition);
  return found == devices.end() ? std::nullopt : std::optional(*found);
}

}  // namespace

std::string Device::displayName() const {
  return model ? fmt::format("{} ({})", *model, serial) : serial;
}

std::string ADBError::message() const {
  return std::visit(
      overloaded{
          [](const ServerUnreachable& error) { return error.text; },
          [](const ProtocolFailure& error) { return "adb protocol error: " + error.text; },
          [](const DeviceNotFound& error) { return error.text; },
          [](const DeviceNotReady& error) {
            return fmt::format(
                "Device {} is '{}', not ready to stream. Wait for it to finish booting (state "
                "should be 'device').",
                error.serial, error.state);
          },
          [](const NoDevices&) -> std::string {
            return "No Android devices or emulators are attached. Start an AAOS emulator and try "
                   "again.";
          },
      },
      value_);
}

std::expected<std::vector<Device>, ADBError> devices(std::string_view host, std::uint16_t port) {
  const auto socket = connectToServer(host, port, kListTimeoutSeconds);
  if (!socket) return std::unexpected(socket.error());
  return requestDevices(socket->get(), host, port);
}

std::expected<int, ADBError> connectLogcat(std::string_view serial, std::string_view host,
                                           std::uint16_t port, std::string_view command) {
  auto socket = connectToServer(host, port, kStreamTimeoutSeconds);
  if (!socket) return std::unexpected(socket.error());
  // The second request waits for the answer to the first: the server drops a request that arrives
  // before the client has read that answer.
  for (const auto& request :
       {fmt::format("host:transport:{}", serial), fmt::format("shell:{}", command)}) {
    if (const auto accepted = requestService(socket->get(), request); !accepted) {
      return std::unexpected(accepted.error());
    }
  }
  return socket->release();
}

std::optional<Device> pickTarget(std::span<const Device> devices,
                                 std::optional<std::string_view> serial) {
  if (serial && !serial->empty()) {
    return firstOf(devices, [&](const Device& device) { return device.serial == *serial; });
  }
  auto target = firstOf(
      devices, [](const Device& device) { return device.isReady() && device.isEmulator(); });
  if (!target) target = firstOf(devices, [](const Device& device) { return device.isReady(); });
  if (!target && !devices.empty()) target = devices.front();
  return target;
}

}  // namespace runeflow::ADBTransport
