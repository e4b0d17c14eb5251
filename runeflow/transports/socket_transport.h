// Outgoing TCP connections, opened within a bounded time.
//
// A host reaches a DLT daemon with it, the adb client its server. The failures are few on purpose:
// each carries a sentence that can be shown to the user unchanged.
#pragma once

#include <cstdint>
#include <expected>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace runeflow::SocketTransport {

class ConnectError {
 public:
  // Neither a refusal nor unreachability; the text is a complete message.
  struct Failed {
    std::string text;
    bool operator==(const Failed&) const = default;
  };
  // The peer answered that nobody listens on the port.
  struct Refused {
    bool operator==(const Refused&) const = default;
  };
  // The host could not be resolved, could not be reached, or did not answer in time.
  struct Unreachable {
    bool operator==(const Unreachable&) const = default;
  };
  using Value = std::variant<Failed, Refused, Unreachable>;

  static ConnectError failed(std::string text) { return ConnectError(Failed{std::move(text)}); }
  static ConnectError refused() { return ConnectError(Refused{}); }
  static ConnectError unreachable() { return ConnectError(Unreachable{}); }

  const Value& value() const { return value_; }

  // For the user.
  std::string message() const;

  bool operator==(const ConnectError&) const = default;

 private:
  explicit ConnectError(Value value) : value_(std::move(value)) {}
  Value value_;
};

// A connected descriptor in blocking mode, closed on exec and without further socket options. The
// caller owns it: it closes it, or hands it to a CaptureSession, which closes it at the end of its
// reader.
//
// `host` is a name or a numeric IPv4 or IPv6 address, given to the resolver as it stands. Its
// addresses are tried in the resolver's order; when none connects, the error is the last one's.
//
// `timeoutSeconds` bounds the wait for each address, not the call: the resolver takes its own time,
// and a host of two silent addresses takes twice the timeout. It is cut to whole milliseconds.
// Negative counts as 0, which waits for nothing; more than 24 days count as 24 days (2^31 - 1 ms);
// what is not a number is `failed`.
//
// Blocks its thread; may run on any number of threads at once.
std::expected<int, ConnectError> connect(std::string_view host, std::uint16_t port,
                                         double timeoutSeconds);

}  // namespace runeflow::SocketTransport
