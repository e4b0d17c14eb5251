// SPDX-License-Identifier: MIT

// An adb server in the test's own process.
#pragma once

#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "runeflow/platform/file_descriptor.h"

namespace runeflow::test {

inline std::string withLength(std::string_view text) {
  return fmt::format("{:04x}{}", text.size(), text);
}

// An adb server that serves one connection after the other. It waits for a request before each of
// its answers, and hangs up behind the last one.
class StandInServer {
 public:
  using Connections = std::vector<std::vector<std::string>>;

  explicit StandInServer(Connections connections, std::uint16_t port = 0) {
    sockaddr_in address{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    auto* const plain = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    const int on = 1;
    ::setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    listens_ = ::bind(listener_.get(), plain, size) == 0 && ::listen(listener_.get(), 8) == 0;
    ::getsockname(listener_.get(), plain, &size);
    port_ = ntohs(address.sin_port);
    if (!listens_) return;
    thread_ = std::jthread([this, connections = std::move(connections)] {
      for (const auto& answers : connections) serve(answers);
    });
  }
  ~StandInServer() { finish(); }
  StandInServer(const StandInServer&) = delete;
  StandInServer& operator=(const StandInServer&) = delete;

  bool listens() const { return listens_; }
  std::string address() const { return fmt::format("127.0.0.1:{}", port_); }

  // Returns what clients sent behind their last request.
  std::string finish() {
    ::shutdown(listener_.get(), SHUT_RDWR);  // ends a wait for a client
    if (thread_.joinable()) thread_.join();
    return unasked_;
  }

 private:
  static std::string read(int client, std::size_t most) {
    std::string bytes;
    char byte = 0;
    while (bytes.size() < most && ::recv(client, &byte, 1, 0) == 1) bytes += byte;
    return bytes;
  }
  void serve(const std::vector<std::string>& answers) {
    const FileDescriptor client(::accept(listener_.get(), nullptr, nullptr));
    if (!client) return;
    for (const auto& answer : answers) {
      const auto length = read(client.get(), 4);
      if (length.size() < 4) return;
      read(client.get(), std::stoul(length, nullptr, 16));
      ::send(client.get(), answer.data(), answer.size(), MSG_NOSIGNAL);
    }
    ::shutdown(client.get(), SHUT_WR);
    unasked_ += read(client.get(), std::string::npos);
  }

  FileDescriptor listener_{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  bool listens_ = false;
  std::uint16_t port_ = 0;
  std::string unasked_;
  std::jthread thread_;
};

inline const std::string kLogLine = "01-02 03:04:05.678  1  2 W Net: disk full\n";

inline std::string deviceList(std::string_view lines) {
  return "OKAY" + withLength(lines);
}

}  // namespace runeflow::test
