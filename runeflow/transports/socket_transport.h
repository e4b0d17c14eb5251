// SPDX-License-Identifier: MIT
/// \file
/// Outgoing TCP connections, opened within a bounded time.
///
/// A viewer calls connect() to reach a DLT daemon, and the adb client calls it to reach the adb
/// server. An error is one of three cases. Each case has a message that can be shown to the user
/// unchanged.
#pragma once

#include <cstdint>
#include <expected>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "runeflow/platform/api.h"

/// Opens TCP connections.
namespace runeflow::SocketTransport {

class ConnectError;

/// Connects to `host` and returns the connected file descriptor. It is in blocking mode and closed
/// on exec; no socket options are set. The caller owns it. The caller closes it or passes it to
/// CaptureSession::run(), whose reader closes it when it ends.
///
/// `host` is a host name or a numeric IPv4 or IPv6 address and goes to the resolver unchanged. The
/// function tries the host's addresses in the resolver's order. If none connects, it returns the
/// error of the last address.
///
/// `timeoutSeconds` limits the wait for each address, not the whole call. The resolver takes its
/// own time, and a host with two silent addresses takes twice the timeout. The value is truncated
/// to whole milliseconds. A negative value counts as 0, which does not wait. A value above 2^31 - 1
/// ms (24 days) counts as that maximum. NaN gives the error `Failed`.
///
/// Blocks the calling thread. Any number of threads may call it at once.
RUNEFLOW_EXPORT std::expected<int, ConnectError> connect(std::string_view host, std::uint16_t port,
                                                         double timeoutSeconds);

/// The error of connect().
class RUNEFLOW_EXPORT ConnectError {
 public:
  /// A failure that is neither of the other two cases.
  struct Failed {
    std::string text;  ///< A complete message for the user.
    bool operator==(const Failed&) const = default;
  };
  /// The host answered that no program listens on the port.
  struct Refused {
    bool operator==(const Refused&) const = default;
  };
  /// The host could not be resolved, could not be reached, or did not answer in time.
  struct Unreachable {
    bool operator==(const Unreachable&) const = default;
  };
  /// One of the three cases.
  using Value = std::variant<Failed, Refused, Unreachable>;

  /// Makes an error that holds a `Failed` with `text`.
  static ConnectError failed(std::string text) { return ConnectError(Failed{std::move(text)}); }
  /// Makes an error that holds a `Refused`.
  static ConnectError refused() { return ConnectError(Refused{}); }
  /// Makes an error that holds an `Unreachable`.
  static ConnectError unreachable() { return ConnectError(Unreachable{}); }

  /// Returns the case, to be visited. The reference is valid as long as the error.
  const Value& value() const { return value_; }

  /// Returns a sentence for the user. The sentence of `Refused` names a DLT daemon.
  std::string message() const;

  bool operator==(const ConnectError&) const = default;

 private:
  explicit ConnectError(Value value) : value_(std::move(value)) {}
  Value value_;
};

}  // namespace runeflow::SocketTransport
