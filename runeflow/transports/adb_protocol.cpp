// SPDX-License-Identifier: MIT
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <string>
#include <utility>

#include "runeflow/platform/system_calls_p.h"
#include "runeflow/platform/unicode_p.h"
#include "runeflow/transports/adb_protocol_p.h"

namespace runeflow::ADBTransport {
namespace {

// Sends the length and the request in one buffer, so that the server never receives a length whose
// request has not been sent.
bool sendRequest(int socket, std::string_view request) {
  const std::string message = fmt::format("{:04x}{}", request.size(), request);
  for (std::string_view rest = message; !rest.empty();) {
    const ssize_t sent = system_calls::sendQuietly(socket, rest);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return false;
    rest.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

// A server may accept a connection and stay silent, or send a byte now and then.
using Deadline = std::chrono::steady_clock::time_point;
constexpr std::chrono::seconds kAnswerTime{5};

bool isReadableBefore(int socket, Deadline deadline) {
  for (;;) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd waiting{socket, POLLIN, 0};
    const int ready = ::poll(&waiting, 1, std::max(0, static_cast<int>(left.count())));
    if (ready >= 0 || errno != EINTR) return ready > 0;
  }
}

// Reads exactly `count` bytes. Absent if the stream ends or fails before, or does not send them in
// time. Memory grows with the bytes that arrive, not with `count`, which comes from the other side.
std::optional<std::string> readExactly(int socket, std::size_t count, Deadline deadline) {
  std::string bytes;
  std::array<char, 4096> chunk;
  while (bytes.size() < count) {
    const std::size_t wanted = std::min(chunk.size(), count - bytes.size());
    if (!isReadableBefore(socket, deadline)) return std::nullopt;
    const ssize_t received = ::recv(socket, chunk.data(), wanted, 0);
    if (received < 0 && errno == EINTR) continue;
    if (received <= 0) return std::nullopt;
    bytes.append(chunk.data(), static_cast<std::size_t>(received));
  }
  return bytes;
}

// Returns "OKAY" or the word of a rejection. Absent if there is no answer.
std::optional<std::string> readStatus(int socket, Deadline deadline) {
  return readExactly(socket, 4, deadline);
}

// Absent if the header is not a hexadecimal number or the number is negative. A sign is allowed:
// "-000" is a length of 0.
std::optional<std::size_t> parseLength(const std::string& header) {
  if (header.starts_with("+-")) return std::nullopt;
  const char* const begin = header.data() + (header.starts_with('+') ? 1 : 0);
  const char* const end = header.data() + header.size();
  int length = 0;
  const auto [parsed, error] = std::from_chars(begin, end, length, 16);
  if (error != std::errc{} || parsed != end || length < 0) return std::nullopt;
  return static_cast<std::size_t>(length);
}

// Reads a text with its length in front. Absent if the length or the text is incomplete or
// malformed.
std::optional<std::string> readText(int socket, Deadline deadline) {
  const auto header = readExactly(socket, 4, deadline);
  if (!header) return std::nullopt;
  const auto length = parseLength(*header);
  if (!length) return std::nullopt;
  const auto bytes = readExactly(socket, *length, deadline);
  if (!bytes) return std::nullopt;
  return unicode::decodeLossily(*bytes);
}

// Returns the length in bytes of the newline character at the start of `text`, or 0 if there is
// none. CR LF counts as two newlines, which does no harm because empty lines are dropped.
std::size_t newlineLength(std::string_view text) {
  if (text.front() >= '\n' && text.front() <= '\r') return 1;
  for (const std::string_view newline : {"\u0085", "\u2028", "\u2029"}) {
    if (text.starts_with(newline)) return newline.size();
  }
  return 0;
}

// Returns the lines of `text`, except empty ones, as views into it.
std::vector<std::string_view> lines(std::string_view text) {
  std::vector<std::string_view> found;
  std::size_t start = 0;
  for (std::size_t position = 0; position < text.size();) {
    const std::size_t newline = newlineLength(text.substr(position));
    if (newline == 0) {
      ++position;
      continue;
    }
    if (position > start) found.push_back(text.substr(start, position - start));
    position += newline;
    start = position;
  }
  if (start < text.size()) found.push_back(text.substr(start));
  return found;
}

// Removes the next token from `line` and returns it. Returns an empty view at the end of the line.
std::string_view takeToken(std::string_view& line) {
  constexpr std::string_view kBlanks = " \t";
  line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
  const auto token = line.substr(0, line.find_first_of(kBlanks));
  line.remove_prefix(token.size());
  return token;
}

// Absent if the line has fewer than two tokens.
std::optional<Device> parseDevice(std::string_view line) {
  Device device{.serial = std::string(takeToken(line)), .state = std::string(takeToken(line))};
  if (device.state.empty()) return std::nullopt;
  for (auto token = takeToken(line); !token.empty(); token = takeToken(line)) {
    const std::size_t colon = token.find(':');
    if (colon == std::string_view::npos) continue;
    const auto key = token.substr(0, colon);
    const auto value = token.substr(colon + 1);
    if (key == "product") device.product = value;
    if (key == "model") device.model = value;
    if (key == "device") device.device = value;
  }
  return device;
}

}  // namespace

std::expected<std::vector<Device>, ADBError> requestDevices(int socket, std::string_view host,
                                                            std::uint16_t port) {
  if (!sendRequest(socket, "host:devices-l")) {
    return std::unexpected(ADBError::serverUnreachable(
        fmt::format("Couldn't send to the adb server at {}:{}.", host, port)));
  }
  const auto deadline = std::chrono::steady_clock::now() + kAnswerTime;
  const auto status = readStatus(socket, deadline);
  if (!status) {
    return std::unexpected(ADBError::serverUnreachable(
        fmt::format("No response from the adb server at {}:{}.", host, port)));
  }
  auto text = readText(socket, deadline);
  if (*status != "OKAY") {
    return std::unexpected(
        ADBError::protocolFailure(std::move(text).value_or("adb server rejected host:devices-l")));
  }
  if (!text) {
    return std::unexpected(ADBError::protocolFailure("truncated device list from the adb server"));
  }
  return parseDeviceList(*text);
}

std::expected<void, ADBError> requestService(int socket, std::string_view request) {
  if (!sendRequest(socket, request)) {
    return std::unexpected(
        ADBError::serverUnreachable(fmt::format("Couldn't send '{}' to the adb server.", request)));
  }
  const auto deadline = std::chrono::steady_clock::now() + kAnswerTime;
  const auto status = readStatus(socket, deadline);
  if (!status) {
    return std::unexpected(ADBError::serverUnreachable(
        fmt::format("No response to '{}' from the adb server.", request)));
  }
  if (*status == "OKAY") return {};
  auto reason = readText(socket, deadline).value_or(fmt::format("adb rejected '{}'", request));
  if (reason.contains("not found") || reason.contains("no devices")) {
    return std::unexpected(ADBError::deviceNotFound(std::move(reason)));
  }
  return std::unexpected(ADBError::protocolFailure(std::move(reason)));
}

std::vector<Device> parseDeviceList(std::string_view text) {
  std::vector<Device> devices;
  for (const auto line : lines(text)) {
    if (auto device = parseDevice(line)) devices.push_back(std::move(*device));
  }
  return devices;
}

}  // namespace runeflow::ADBTransport
