// SPDX-License-Identifier: MIT
#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cmath>
#include <csignal>
#include <fstream>
#include <functional>
#include <thread>
#include <tuple>

#include "runeflow/platform/file_descriptor.h"
#include "runeflow/transports/adb_protocol_p.h"
#include "runeflow/transports/file_transport.h"
#include "runeflow/transports/socket_transport_p.h"
#include "support.h"

namespace runeflow {
namespace {

using ADBTransport::ADBError;
using SocketTransport::ConnectError;
using SocketTransport::connectToFirst;
using TransportTest = test::LeavesNothingBehind;
using Answers = std::vector<std::string>;

constexpr const char* kLoopback = "127.0.0.1";

// A free loopback port. It refuses connections until listen() is called.
class Port {
 public:
  Port() {
    entry_.ai_family = AF_INET;
    entry_.ai_socktype = SOCK_STREAM;
    entry_.ai_addr = reinterpret_cast<sockaddr*>(&address_);
    entry_.ai_addrlen = sizeof address_;
    EXPECT_EQ(::bind(socket_.get(), entry_.ai_addr, entry_.ai_addrlen), 0);
    EXPECT_EQ(::getsockname(socket_.get(), entry_.ai_addr, &entry_.ai_addrlen), 0);
  }
  std::uint16_t number() const { return ntohs(address_.sin_port); }
  void listen(int backlog = 8) { EXPECT_EQ(::listen(socket_.get(), backlog), 0); }
  FileDescriptor accept() { return FileDescriptor(::accept(socket_.get(), nullptr, nullptr)); }

  // Listens and fills the queue of pending connections: further attempts to connect get no answer.
  void fallSilent() {
    listen(0);
    while (auto queued = connectToFirst(&entry_, 100)) queue_.push_back(std::move(*queued));
  }

  // Returns the entry of this port in a list of addresses as the resolver makes it, before `next`.
  addrinfo* then(addrinfo* next) { return entry_.ai_next = next, &entry_; }

 private:
  FileDescriptor socket_{::socket(AF_INET, SOCK_STREAM, 0)};
  sockaddr_in address_{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  addrinfo entry_{};
  std::vector<FileDescriptor> queue_;
};

std::string readUntilEnd(int fd, std::size_t limit = std::string::npos) {
  std::string bytes;
  char byte = 0;
  while (bytes.size() < limit && TEMP_FAILURE_RETRY(::read(fd, &byte, 1)) > 0) bytes += byte;
  return bytes;
}

// Runs `call` beside a server on `port` and returns the requests that the server received. The
// server sends one of `answers` for each request, one byte at a time, and then closes the
// connection. Before each byte it sends a signal to the caller's thread, to interrupt its system
// calls.
std::string requestsOf(const Answers& answers, Port& port, const std::function<void()>& call) {
  port.listen();
  static std::atomic<bool> caught;
  struct sigaction interrupt{};  // without SA_RESTART: system calls fail with EINTR
  interrupt.sa_handler = [](int) { caught = true; };
  ::sigaction(SIGUSR1, &interrupt, nullptr);
  std::string requests;
  std::jthread server([&, caller = ::pthread_self()] {
    const FileDescriptor client = port.accept();
    for (const auto& answer : answers) {
      const std::string head = readUntilEnd(client.get(), 4);
      requests.append(head).append(readUntilEnd(client.get(), std::stoul("0" + head, nullptr, 16)));
      for (const char byte : answer) {
        caught = false;
        ::pthread_kill(caller, SIGUSR1);
        // Wait for the signal handler, or the byte could arrive before the signal. The wait is
        // limited, because ThreadSanitizer delays a signal that arrives just before a system call
        // until the call has returned.
        for (int left = 1'000; !caught && left > 0; --left) ::usleep(100);
        ::send(client.get(), &byte, 1, MSG_NOSIGNAL);
      }
    }
  });
  call();
  server.join();
  return requests;
}

template <class T, class Error>
std::optional<Error> errorOf(const std::expected<T, Error>& result) {
  return result ? std::nullopt : std::optional(result.error());
}

std::string described(const std::vector<ADBTransport::Device>& devices) {
  std::string text;
  for (const auto& [serial, state, product, model, type] : devices) {
    text += fmt::format("{}|{}|{}|{}|{} ", serial, state, product.value_or("-"),
                        model.value_or("-"), type.value_or("-"));
  }
  return text;
}

TEST_F(TransportTest, filesOpenForReadingAndReportTheirSize) {
  const test::TemporaryFolder folder;
  const auto path = folder.file("Gerät-日本.log");
  for (const std::string content : {"", "one\ntwo\n"}) {
    std::ofstream(path, std::ios::binary) << content;
    const auto file = FileTransport::openForReadingWithSize(path).value();
    EXPECT_EQ(file.byteCount, content.size());
    EXPECT_EQ(readUntilEnd(FileDescriptor(file.fd).get()), content);
  }
  for (const std::string& missing : {std::string(), path + '\0'}) {
    EXPECT_EQ(FileTransport::openForReading(missing), -1) << missing;
    EXPECT_EQ(std::exchange(errno, 0), ENOENT) << missing;
  }
}

TEST_F(TransportTest, socketsConnectOrFailAtOnce) {
  Port port;
  EXPECT_EQ(SocketTransport::connect(kLoopback, port.number(), 30).error().message(),
            "Connection refused \u2014 no DLT daemon is listening on that host:port.");
  for (const auto host : {std::string_view(), {"no-such-host.invalid"}, {"127.0.0.1\0.com", 14}}) {
    EXPECT_EQ(SocketTransport::connect(host, port.number(), 30).error().message(),
              "Host unreachable \u2014 check the address, the network, and that the target is "
              "powered on.");
  }
  EXPECT_EQ(SocketTransport::connect(kLoopback, port.number(), std::nan("")).error().message(),
            "The time limit of the connection is not a number; give it in seconds.");
  port.listen();
  const FileDescriptor client(SocketTransport::connect(kLoopback, port.number(), 5).value_or(-1));
  EXPECT_EQ(::fcntl(client.get(), F_GETFL) & (O_NONBLOCK | O_ACCMODE), O_RDWR);
}

TEST_F(TransportTest, socketsTryEachAddressForTheTimeLimitAndReportTheLastError) {
  Port refusing;
  Port silent;
  silent.fallSilent();
  Port open;
  open.listen();
  addrinfo unsupported{};
  const auto error = [](const addrinfo* list) { return errorOf(connectToFirst(list, 100)); };
  EXPECT_EQ(error(nullptr), ConnectError::failed("no address to connect to"));
  EXPECT_EQ(error(refusing.then(silent.then(nullptr))), ConnectError::unreachable());
  EXPECT_EQ(error(silent.then(refusing.then(nullptr))), ConnectError::refused());
  EXPECT_EQ(error(refusing.then(&unsupported)),
            ConnectError::failed("Address family not supported by protocol"));
  EXPECT_EQ(error(silent.then(refusing.then(open.then(nullptr)))), std::nullopt);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(SocketTransport::connect(kLoopback, silent.number(), 0.25));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
  EXPECT_EQ(SocketTransport::pollTimeout(2.5019), 2501);
  EXPECT_EQ(SocketTransport::pollTimeout(-HUGE_VAL), 0);
  EXPECT_EQ(SocketTransport::pollTimeout(2'147'483.648), INT_MAX);
}

TEST_F(TransportTest, adbListsDevicesAndOpensStreams) {
  Port port;
  const auto listing = requestsOf({"OKAY0016e-1 device\nR58 offline"}, port, [&] {
    const auto devices = ADBTransport::devices(kLoopback, port.number());
    EXPECT_EQ(described(devices.value()), "e-1|device|-|-|- R58|offline|-|-|- ");
  });
  EXPECT_EQ(listing, "000ehost:devices-l");
  const auto opening = requestsOf({"OKAY", "OKAYfirst line\nsecond"}, port, [&] {
    const auto fd = ADBTransport::connectLogcat("s-1", kLoopback, port.number(), "logcat \u00e9");
    EXPECT_EQ(readUntilEnd(FileDescriptor(fd.value()).get()), "first line\nsecond");
  });
  EXPECT_EQ(opening, "0012host:transport:s-1000fshell:logcat \u00e9");
}

TEST_F(TransportTest, adbAnswersBecomeErrors) {
  Port port;
  const auto silent = ADBError::serverUnreachable;
  const auto rejected = ADBError::protocolFailure;
  const auto lists = [&](const std::optional<ADBError>& error, const Answers& answers) {
    for (const auto& answer : answers) {
      requestsOf({answer}, port, [&] {
        EXPECT_EQ(errorOf(ADBTransport::devices(kLoopback, port.number())), error) << answer;
      });
    }
  };
  lists(std::nullopt, {"OKAY0000", "OKAY-000", "OKAY+000", "OKAY000Aserial dev"});
  lists(rejected("truncated device list from the adb server"),
        {"OKAY", "OKAY000", "OKAY0005abcd", "OKAYffff", "OKAY-001", "OKAY+-01", "OKAY  00"});
  lists(silent(fmt::format("No response from the adb server at 127.0.0.1:{}.", port.number())),
        {"", "OKA"});
  lists(rejected("adb server rejected host:devices-l"), {"FAIL0007closed", "FAIL"});
  lists(rejected("\uFFFD(!"), {"FAIL0003\xC3(!", "okay0003\xC3(!"});
  const std::pair<Answers, ADBError> streams[] = {
      {{"FAIL0014device 's' not found"}, ADBError::deviceNotFound("device 's' not found")},
      {{"FAIL0014no devices/emulators"}, ADBError::deviceNotFound("no devices/emulators")},
      {{"FAIL0009Not Found"}, rejected("Not Found")},
      {{"FAILzzzz"}, rejected("adb rejected 'host:transport:s'")},
      {{"OK"}, silent("No response to 'host:transport:s' from the adb server.")},
      {{"OKAY", "FAIL0006closed"}, rejected("closed")},
      {{"OKAY", ""}, silent("No response to 'shell:c' from the adb server.")}};
  for (const auto& [answers, error] : streams) {
    requestsOf(answers, port, [&] {
      EXPECT_EQ(errorOf(ADBTransport::connectLogcat("s", kLoopback, port.number(), "c")), error);
    });
  }
}

TEST_F(TransportTest, aClosedAdbConnectionFailsTheCallWithoutASignal) {
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  const FileDescriptor client(ends[0]);
  FileDescriptor(ends[1]).reset();
  EXPECT_EQ(ADBTransport::requestDevices(ends[0], "h", 9).error(),
            ADBError::serverUnreachable("Couldn't send to the adb server at h:9."));
  EXPECT_EQ(ADBTransport::requestService(ends[0], "shell:x").error(),
            ADBError::serverUnreachable("Couldn't send 'shell:x' to the adb server."));
}

TEST_F(TransportTest, adbDeviceListsAreSplitIntoLinesAndTokens) {
  EXPECT_EQ(
      described(ADBTransport::parseDeviceList(
          "\n\r\n \t\nalone\n\ta \t offline usb:1-1 stray\rb x model: product:a:b device::\v"
          "c x model:1 model:2 Model:3 :4\fd\u00a0\u2003d x\u0085e x\u2028f x\u2029g x\r\nh x")),
      "a|offline|-|-|- b|x|a:b||: c|x|-|2|- d\u00a0\u2003d|x|-|-|- e|x|-|-|- f|x|-|-|- "
      "g|x|-|-|- h|x|-|-|- ");
}

TEST_F(TransportTest, adbPicksTheReadiestDevice) {
  const std::tuple<std::string, std::optional<std::string>, std::string> rows[] = {
      {"", std::nullopt, "none"},
      {"R58 device\nemulator-5554 device", std::nullopt, "emulator-5554"},
      {"emulator-5556 offline\nR58 device\nR59 device", "", "R58"},
      {"emulator-5556 offline\nR60 unauthorized", std::nullopt, "emulator-5556"},
      {"R58 device\nR60 unauthorized", "R60", "R60"},
      {"R58 device", "r58", "none"}};
  for (const auto& [list, serial, target] : rows) {
    const auto picked = ADBTransport::pickTarget(ADBTransport::parseDeviceList(list), serial);
    EXPECT_EQ(picked ? picked->serial : "none", target) << list;
  }
}

TEST_F(TransportTest, errorMessagesNameTheCauseAndTheRemedy) {
  Port refusing;
  const std::pair<std::string, std::string> rows[] = {
      {ADBTransport::devices(kLoopback, refusing.number()).error().message(),
       fmt::format("No adb server is listening on 127.0.0.1:{}. Start an Android emulator (Android "
                   "Studio launches the adb server automatically), or run `adb start-server`.",
                   refusing.number())},
      {ADBTransport::connectLogcat("s", "no-such-host.invalid", 7, "c").error().message(),
       "Couldn't reach the adb server at no-such-host.invalid:7 \u2014 check the address and "
       "that the server is running."},
      {ADBError::protocolFailure("closed").message(), "adb protocol error: closed"},
      {ADBError::deviceNotReady("s", "offline").message(),
       "Device s is 'offline', not ready to stream. Wait for it to finish booting (state should be "
       "'device')."},
      {ADBError::noDevices().message(),
       "No Android devices or emulators are attached. Start an AAOS emulator and try again."},
      {ADBTransport::Device{"s", "device", "p", ""}.displayName(), " (s)"}};
  for (const auto& [message, text] : rows) EXPECT_EQ(message, text);
}

}  // namespace
}  // namespace runeflow
