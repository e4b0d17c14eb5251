// SPDX-License-Identifier: MIT
#include "runeflow/transports/socket_transport.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <limits>
#include <memory>
#include <system_error>

#include "runeflow/platform/overloaded_p.h"
#include "runeflow/platform/system_calls_p.h"
#include "runeflow/transports/socket_transport_p.h"

namespace runeflow::SocketTransport {
namespace {

struct FreeAddresses {
  void operator()(addrinfo* list) const { ::freeaddrinfo(list); }
};
using AddressList = std::unique_ptr<addrinfo, FreeAddresses>;

// Returns null if the host cannot be resolved.
AddressList resolve(std::string_view host, std::uint16_t port) {
  // The resolver would stop at the NUL and look up a host other than the requested one.
  if (host.find('\0') != std::string_view::npos) return nullptr;
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  addrinfo* list = nullptr;
  const int code =
      ::getaddrinfo(std::string(host).c_str(), std::to_string(port).c_str(), &hints, &list);
  return code == 0 ? AddressList(list) : nullptr;
}

ConnectError failure(int errorNumber) {
  // The category returns the text of strerror().
  return ConnectError::failed(std::generic_category().message(errorNumber));
}

ConnectError classify(int errorNumber) {
  if (errorNumber == ECONNREFUSED) return ConnectError::refused();
  const bool isUnreachable =
      errorNumber == ENETUNREACH || errorNumber == ETIMEDOUT || errorNumber == EHOSTUNREACH;
  return isUnreachable ? ConnectError::unreachable() : failure(errorNumber);
}

std::expected<void, ConnectError> awaitConnection(int socket, int timeoutMs) {
  pollfd waiting{socket, POLLOUT, 0};
  const int ready = ::poll(&waiting, 1, timeoutMs);
  if (ready == 0) return std::unexpected(ConnectError::unreachable());
  if (ready < 0) return std::unexpected(failure(errno));
  int pending = 0;
  socklen_t length = sizeof pending;
  ::getsockopt(socket, SOL_SOCKET, SO_ERROR, &pending, &length);
  if (pending != 0) return std::unexpected(classify(pending));
  return {};
}

std::expected<FileDescriptor, ConnectError> connectTo(const addrinfo& address, int timeoutMs) {
  FileDescriptor socket(
      system_calls::openSocket(address.ai_family, address.ai_socktype, address.ai_protocol));
  if (!socket) return std::unexpected(failure(errno));
  const int statusFlags = ::fcntl(socket.get(), F_GETFL);
  ::fcntl(socket.get(), F_SETFL, statusFlags | O_NONBLOCK);
  if (::connect(socket.get(), address.ai_addr, address.ai_addrlen) != 0) {
    if (errno != EINPROGRESS) return std::unexpected(classify(errno));
    if (auto connected = awaitConnection(socket.get(), timeoutMs); !connected) {
      return std::unexpected(std::move(connected.error()));
    }
  }
  ::fcntl(socket.get(), F_SETFL, statusFlags);
  return socket;
}

}  // namespace

std::string ConnectError::message() const {
  return std::visit(
      overloaded{
          [](const Failed& failed) { return failed.text; },
          [](const Refused&) -> std::string {
            return "Connection refused — no DLT daemon is listening on that host:port.";
          },
          [](const Unreachable&) -> std::string {
            return "Host unreachable — check the address, the network, and that the target is "
                   "powered on.";
          },
      },
      value_);
}

std::optional<int> pollTimeout(double seconds) {
  if (std::isnan(seconds)) return std::nullopt;
  constexpr double kLongest = std::numeric_limits<int>::max();
  return static_cast<int>(std::clamp(seconds * 1000, 0.0, kLongest));
}

std::expected<FileDescriptor, ConnectError> connectToFirst(const addrinfo* addresses,
                                                           int timeoutMs) {
  auto lastError = ConnectError::failed("no address to connect to");
  for (const addrinfo* address = addresses; address != nullptr; address = address->ai_next) {
    auto socket = connectTo(*address, timeoutMs);
    if (socket) return socket;
    lastError = std::move(socket.error());
  }
  return std::unexpected(std::move(lastError));
}

std::expected<int, ConnectError> connect(std::string_view host, std::uint16_t port,
                                         double timeoutSeconds) {
  const auto timeoutMs = pollTimeout(timeoutSeconds);
  if (!timeoutMs) {
    return std::unexpected(ConnectError::failed(
        "The time limit of the connection is not a number; give it in seconds."));
  }
  const AddressList addresses = resolve(host, port);
  if (!addresses) return std::unexpected(ConnectError::unreachable());
  auto socket = connectToFirst(addresses.get(), *timeoutMs);
  if (!socket) return std::unexpected(std::move(socket.error()));
  return socket->release();
}

}  // namespace runeflow::SocketTransport
