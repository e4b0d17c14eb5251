// SPDX-License-Identifier: MIT

// Takes any bytes as the answers of an adb server. Every call must return, the device list must not
// hold more devices than the answer has room for, and a request for a service must not read beyond
// the "OKAY" that accepts it.
#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>

#include "runeflow/platform/file_descriptor.h"
#include "runeflow/platform/unicode_p.h"
#include "runeflow/transports/adb_protocol_p.h"

namespace {

using runeflow::FileDescriptor;
using runeflow::ADBTransport::Device;

void require(bool condition) {
  if (!condition) std::abort();
}

// A connection whose server has sent `answers` and will send no more. `answers` must fit into the
// socket's buffer, because nobody reads while they are sent.
struct Connection {
  FileDescriptor client;
  FileDescriptor server;

  explicit Connection(std::string_view answers) {
    int ends[2];
    require(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
    client.reset(ends[0]);
    server.reset(ends[1]);
    const auto sent = ::send(server.get(), answers.data(), answers.size(), MSG_DONTWAIT);
    require(answers.empty() || sent == static_cast<ssize_t>(answers.size()));
    ::shutdown(server.get(), SHUT_WR);
  }
};

std::string readRest(int socket) {
  std::string rest;
  char chunk[4096];
  for (ssize_t count = 0; (count = ::recv(socket, chunk, sizeof chunk, 0)) > 0;) {
    rest.append(chunk, static_cast<std::size_t>(count));
  }
  return rest;
}

void checkList(std::string_view answers) {
  const Connection connection(answers);
  const auto devices =
      runeflow::ADBTransport::requestDevices(connection.client.get(), "127.0.0.1", 5037);
  require(devices || !devices.error().message().empty());
  if (!devices) return;
  require(answers.starts_with("OKAY") && devices->size() <= answers.size() / 4);
  for (const Device& device : *devices) {
    require(!device.serial.empty() && !device.state.empty());
    require(runeflow::unicode::isValidUtf8(device.displayName()));
  }
}

void checkService(std::string_view answers) {
  const Connection connection(answers);
  const bool accepted =
      runeflow::ADBTransport::requestService(connection.client.get(), "shell:x").has_value();
  require(accepted == answers.starts_with("OKAY"));
  if (accepted) require(readRest(connection.client.get()) == answers.substr(4));
}

// The lines of a device list must not influence each other: two halves must give the same devices
// alone and joined by a line feed.
void checkParts(std::string_view text) {
  using runeflow::ADBTransport::parseDeviceList;
  const auto first = text.substr(0, text.size() / 2);
  const auto second = text.substr(first.size());
  auto parts = parseDeviceList(first);
  for (auto& device : parseDeviceList(second)) parts.push_back(std::move(device));
  require(parts == parseDeviceList(std::string(first) + '\n' + std::string(second)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kRoom = 72 << 10;  // more than 8 + 0xffff, the longest answer with a list
  const std::string_view answers(reinterpret_cast<const char*>(data), std::min(size, kRoom));
  checkList(answers);
  checkService(answers);
  checkParts(answers);
  return 0;
}
