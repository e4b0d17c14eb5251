#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <limits>
#include <thread>

#include "runeflow/platform/file_descriptor.h"
#include "runeflow/transports/adb_protocol_p.h"
#include "runeflow/transports/adb_transport.h"
#include "runeflow/transports/file_transport.h"
#include "runeflow/transports/socket_transport.h"
#include "runeflow/transports/socket_transport_p.h"

namespace runeflow {

namespace ADBTransport {
static std::ostream& operator<<(std::ostream& out, const ADBError& error) {
  return out << error.message();
}
static std::ostream& operator<<(std::ostream& out, const Device& device) {
  return out << device.serial << ' ' << device.state << ' ' << device.displayName();
}
}  // namespace ADBTransport

namespace SocketTransport {
static std::ostream& operator<<(std::ostream& out, const ConnectError& error) {
  return out << error.message();
}
}  // namespace SocketTransport

namespace {

using ADBTransport::ADBError;
using ADBTransport::Device;
using SocketTransport::ConnectError;
using testing::ElementsAre;

constexpr const char* kLoopback = "127.0.0.1";
constexpr auto kNowhere = std::nullopt;

// Fails the test when it leaves more or fewer descriptors open than it found.
class Transport : public testing::Test {
 protected:
  static std::ptrdiff_t openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  }
  void TearDown() override { EXPECT_EQ(openDescriptors(), before_); }

 private:
  std::ptrdiff_t before_ = openDescriptors();
};
using FileTransportTest = Transport;
using SocketTransportTest = Transport;
using ADBTransportTest = Transport;

// A loopback port of our own: refusing until listen() is called.
class Port {
 public:
  Port() {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address_;
    EXPECT_EQ(::bind(socket_.get(), sockaddrOf(), length), 0);
    EXPECT_EQ(::getsockname(socket_.get(), sockaddrOf(), &length), 0);
    entry_.ai_family = AF_INET;
    entry_.ai_socktype = SOCK_STREAM;
    entry_.ai_addr = sockaddrOf();
    entry_.ai_addrlen = length;
  }

  void listen(int backlog = 8) { EXPECT_EQ(::listen(socket_.get(), backlog), 0); }

  // Listens and fills its queue: further connections get no answer.
  void fallSilent() {
    listen(0);
    while (queue_.size() < 64) {
      auto queued = SocketTransport::connectToFirst(&entry_, 100);
      if (!queued) return;
      queue_.push_back(std::move(*queued));
    }
    ADD_FAILURE() << "the queue of the port never filled";
  }

  FileDescriptor accept() { return FileDescriptor(::accept(socket_.get(), nullptr, nullptr)); }
  void stopAccepting() { ::shutdown(socket_.get(), SHUT_RDWR); }
  std::uint16_t number() const { return ntohs(address_.sin_port); }

  // As the resolver would list this port, with `next` behind it.
  const addrinfo* then(const addrinfo* next) {
    entry_.ai_next = const_cast<addrinfo*>(next);
    return &entry_;
  }

 private:
  sockaddr* sockaddrOf() { return reinterpret_cast<sockaddr*>(&address_); }

  FileDescriptor socket_{::socket(AF_INET, SOCK_STREAM, 0)};
  sockaddr_in address_{};
  addrinfo entry_{};
  std::vector<FileDescriptor> queue_;
};

std::string readUntilEnd(int fd, std::size_t limit = std::string::npos) {
  std::string bytes;
  char chunk[65536];
  while (bytes.size() < limit) {
    const ssize_t count = ::read(fd, chunk, std::min(sizeof chunk, limit - bytes.size()));
    if (count <= 0) break;
    bytes.append(chunk, static_cast<std::size_t>(count));
  }
  return bytes;
}

void writePieces(int fd, std::string_view bytes, std::size_t pieceSize) {
  for (; !bytes.empty(); bytes.remove_prefix(std::min(pieceSize, bytes.size()))) {
    const auto piece = bytes.substr(0, pieceSize);
    if (::send(fd, piece.data(), piece.size(), MSG_NOSIGNAL) <= 0) return;
  }
}

// Plays one connection: for every answer it reads one request, then sends the answer in pieces of
// the given size; it closes the connection after the last.
class AdbServer {
 public:
  explicit AdbServer(std::vector<std::string> answers, std::size_t pieceSize = 1) {
    port_.listen();
    thread_ = std::thread([this, answers = std::move(answers), pieceSize] {
      const FileDescriptor client = port_.accept();
      const int noDelay = 1;
      ::setsockopt(client.get(), IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
      for (const auto& answer : answers) {
        readRequest(client.get());
        writePieces(client.get(), answer, pieceSize);
      }
    });
  }
  ~AdbServer() { finish(); }

  // Waits for the script's end; all bytes that came in.
  const std::string& received() {
    finish();
    return received_;
  }

  std::uint16_t port() const { return port_.number(); }

 private:
  void finish() {
    port_.stopAccepting();
    if (thread_.joinable()) thread_.join();
  }

  void readRequest(int client) {
    const std::string header = readUntilEnd(client, 4);
    received_ += header + readUntilEnd(client, std::stoul("0" + header, nullptr, 16));
  }

  std::string received_;
  Port port_;
  std::thread thread_;
};

struct SocketPair {
  FileDescriptor client;
  FileDescriptor server;

  SocketPair() {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    client.reset(ends[0]);
    server.reset(ends[1]);
  }
  // The whole of what the server will ever say.
  int clientOf(std::string_view answer) {
    writePieces(server.get(), answer, answer.size());
    ::shutdown(server.get(), SHUT_WR);
    return client.get();
  }
};

std::string temporaryFile(const std::string& name, std::string_view content) {
  const std::string path = testing::TempDir() + name;
  std::ofstream(path, std::ios::binary) << content;
  return path;
}

TEST_F(FileTransportTest, opensWhatExistsAndTellsItsLength) {
  const struct {
    std::string name;
    std::string content;
  } files[] = {{"transport empty.log", ""}, {"Gerät-日本.log", "one\ntwo\n"}};
  for (const auto& [name, content] : files) {
    SCOPED_TRACE(name);
    const auto path = temporaryFile(name, content);
    const FileDescriptor plain(FileTransport::openForReading(path));
    EXPECT_EQ(readUntilEnd(plain.get()), content);
    EXPECT_EQ(::fcntl(plain.get(), F_GETFL) & O_ACCMODE, O_RDONLY);
    const auto sized = FileTransport::openForReadingWithSize(path);
    ASSERT_TRUE(sized.has_value());
    EXPECT_EQ(sized->byteCount, content.size());
    EXPECT_EQ(readUntilEnd(FileDescriptor(sized->fd).get()), content);
    std::filesystem::remove(path);
  }
}

TEST_F(FileTransportTest, saysThroughErrnoWhyItCannotOpen) {
  const auto existing = temporaryFile("transport nul.log", "x");
  for (const std::string& path : {std::string("/no/such/file"), std::string(), existing + '\0'}) {
    errno = 0;
    EXPECT_EQ(FileTransport::openForReading(path), -1) << path;
    EXPECT_EQ(errno, ENOENT) << path;
    EXPECT_EQ(FileTransport::openForReadingWithSize(path), std::nullopt) << path;
  }
  std::filesystem::remove(existing);
}

TEST_F(SocketTransportTest, handsOutAConnectedBlockingDescriptor) {
  Port port;
  port.listen();
  const auto fd = SocketTransport::connect(kLoopback, port.number(), 5);
  ASSERT_TRUE(fd.has_value());
  const FileDescriptor client(*fd);
  EXPECT_EQ(::fcntl(*fd, F_GETFL) & O_NONBLOCK, 0);
  writePieces(port.accept().get(), "hello", 5);
  EXPECT_EQ(readUntilEnd(*fd), "hello");
}

TEST_F(SocketTransportTest, failsAtOnceWhereNothingAnswers) {
  Port refusing;
  const struct {
    std::string host;
    double timeout;
    ConnectError error;
  } rows[] = {
      {kLoopback, 30, ConnectError::refused()},
      {"", 30, ConnectError::unreachable()},
      {"no-such-host.invalid", 30, ConnectError::unreachable()},
      {std::string("127.0.0.1\0.example", 18), 30, ConnectError::unreachable()},
      {kLoopback, std::nan(""),
       ConnectError::failed(
           "The time limit of the connection is not a number; give it in seconds.")},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(SocketTransport::connect(row.host, refusing.number(), row.timeout).error(), row.error)
        << row.host;
  }
}

TEST_F(SocketTransportTest, stopsWaitingForASilentHost) {
  Port silent;
  silent.fallSilent();
  for (const double seconds : {0.25, 0.0, -3.0}) {
    SCOPED_TRACE(seconds);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(SocketTransport::connect(kLoopback, silent.number(), seconds).error(),
              ConnectError::unreachable());
    const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited.count(), seconds);
    EXPECT_LT(waited.count(), 5);
  }
}

TEST_F(SocketTransportTest, triesEveryAddressAndTellsTheLastError) {
  Port refusing;
  Port silent;
  silent.fallSilent();
  Port open;
  open.listen();
  addrinfo unsupported{};
  unsupported.ai_family = AF_INET;
  unsupported.ai_socktype = SOCK_STREAM;
  unsupported.ai_protocol = IPPROTO_UDP;
  const auto noSocket = ConnectError::failed("Protocol not supported");
  const auto connect = [](const addrinfo* list) {
    auto socket = SocketTransport::connectToFirst(list, 100);
    return socket ? kNowhere : std::optional(socket.error());
  };

  EXPECT_EQ(connect(nullptr), ConnectError::failed("no address to connect to"));
  EXPECT_EQ(connect(refusing.then(silent.then(nullptr))), ConnectError::unreachable());
  EXPECT_EQ(connect(silent.then(refusing.then(nullptr))), ConnectError::refused());
  EXPECT_EQ(connect(refusing.then(&unsupported)), noSocket);
  EXPECT_EQ(connect(silent.then(refusing.then(open.then(nullptr)))), kNowhere);
}

TEST_F(SocketTransportTest, timeoutsBecomeMillisecondsThatPollCanTake) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  constexpr int kLongest = std::numeric_limits<int>::max();
  const struct {
    double seconds;
    std::optional<int> milliseconds;
  } rows[] = {{2.5, 2500},
              {0.0004, 0},
              {0.0019, 1},
              {-1, 0},
              {-kInfinity, 0},
              {2'147'483.6471, kLongest},
              {2'147'483.648, kLongest},
              {1e300, kLongest},
              {kInfinity, kLongest},
              {std::nan(""), std::nullopt}};
  for (const auto& row : rows) {
    EXPECT_EQ(SocketTransport::pollTimeout(row.seconds), row.milliseconds) << row.seconds;
  }
}

TEST_F(SocketTransportTest, errorsSpeakToTheUser) {
  EXPECT_EQ(ConnectError::refused().message(),
            "Connection refused \u2014 no DLT daemon is listening on that host:port.");
  EXPECT_EQ(
      ConnectError::unreachable().message(),
      "Host unreachable \u2014 check the address, the network, and that the target is powered "
      "on.");
  EXPECT_EQ(ConnectError::failed("x").message(), "x");
  EXPECT_NE(ConnectError::failed("x"), ConnectError::failed("y"));
}

TEST_F(ADBTransportTest, listsDevicesHoweverTheAnswerIsCut) {
  const std::string list =
      "emulator-5554          device product:p model:M_1 device:d transport_id:2\n"
      "R58                    offline transport_id:3\n";
  for (const std::size_t pieceSize : {1U, 3U, 5U, 4096U}) {
    SCOPED_TRACE(pieceSize);
    AdbServer server({fmt::format("OKAY{:04x}{}", list.size(), list)}, pieceSize);
    const auto devices = ADBTransport::devices(kLoopback, server.port());
    ASSERT_TRUE(devices.has_value()) << devices.error().message();
    EXPECT_THAT(*devices, ElementsAre(Device{"emulator-5554", "device", "p", "M_1", "d"},
                                      Device{"R58", "offline"}));
    EXPECT_EQ(server.received(), "000ehost:devices-l");
  }
}

TEST_F(ADBTransportTest, turnsEveryAnswerToTheListIntoItsError) {
  const auto truncated = ADBError::protocolFailure("truncated device list from the adb server");
  const auto rejected = [](std::string reason) {
    return ADBError::protocolFailure(std::move(reason));
  };
  const struct {
    std::string answer;
    std::optional<ADBError> error;  // absent: a list
  } rows[] = {
      {"OKAY0000", std::nullopt},
      {"OKAY-000", std::nullopt},
      {"OKAY+000", std::nullopt},
      {"OKAY000Aserial dev", std::nullopt},
      {"OKAY", truncated},
      {"OKAY000", truncated},
      {"OKAY0005abcd", truncated},
      {"OKAYffff", truncated},
      {"OKAY-001", truncated},
      {"OKAY+-01", truncated},
      {"OKAY0x00", truncated},
      {"OKAY  00", truncated},
      {"", ADBError::serverUnreachable("No response from the adb server at h:9.")},
      {"OKA", ADBError::serverUnreachable("No response from the adb server at h:9.")},
      {"FAIL0006closed", rejected("closed")},
      {"FAIL000cnot found \xC3(", rejected("not found \uFFFD(")},
      {"FAIL0000", rejected("")},
      {"okay0001x", rejected("x")},
      {"FAIL0007closed", rejected("adb server rejected host:devices-l")},
      {"FAIL", rejected("adb server rejected host:devices-l")},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.answer);
    SocketPair pair;
    const auto devices = ADBTransport::requestDevices(pair.clientOf(row.answer), "h", 9);
    EXPECT_EQ(devices ? kNowhere : std::optional(devices.error()), row.error);
  }
}

TEST_F(ADBTransportTest, opensAStreamOnADevice) {
  AdbServer server({"OKAY", "OKAYfirst line\nsecond"});
  const auto fd = ADBTransport::connectLogcat("s-1", kLoopback, server.port(), "logcat -v \u00e9");
  ASSERT_TRUE(fd.has_value()) << fd.error().message();
  const FileDescriptor stream(*fd);
  EXPECT_EQ(readUntilEnd(*fd), "first line\nsecond");
  EXPECT_EQ(::fcntl(*fd, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(server.received(), "0012host:transport:s-10012shell:logcat -v \u00e9");
}

TEST_F(ADBTransportTest, reportsTheRequestThatTheServerRefused) {
  const struct {
    std::vector<std::string> answers;
    ADBError error;
  } rows[] = {
      {{"FAIL0014device 's' not found"}, ADBError::deviceNotFound("device 's' not found")},
      {{"FAIL0021no devices/emulators are attached"},
       ADBError::deviceNotFound("no devices/emulators are attached")},
      {{"FAIL000edevice offline"}, ADBError::protocolFailure("device offline")},
      {{"FAIL0009Not Found"}, ADBError::protocolFailure("Not Found")},
      {{"FAILzzzz"}, ADBError::protocolFailure("adb rejected 'host:transport:s'")},
      {{"OK"},
       ADBError::serverUnreachable("No response to 'host:transport:s' from the adb server.")},
      {{"OKAY", "FAIL0006closed"}, ADBError::protocolFailure("closed")},
      {{"OKAY", "FAIL0006clos"}, ADBError::protocolFailure("adb rejected 'shell:c'")},
      {{"OKAY", ""}, ADBError::serverUnreachable("No response to 'shell:c' from the adb server.")},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.error.message());
    AdbServer server(row.answers);
    const auto fd = ADBTransport::connectLogcat("s", kLoopback, server.port(), "c");
    EXPECT_EQ(fd ? kNowhere : std::optional(fd.error()), row.error);
  }
}

TEST_F(ADBTransportTest, aServerThatHungUpEndsTheCallAndNotTheProcess) {
  SocketPair pair;
  pair.server.reset();
  EXPECT_EQ(ADBTransport::requestDevices(pair.client.get(), "h", 9).error(),
            ADBError::serverUnreachable("Couldn't send to the adb server at h:9."));
  EXPECT_EQ(ADBTransport::requestService(pair.client.get(), "shell:x").error(),
            ADBError::serverUnreachable("Couldn't send 'shell:x' to the adb server."));
}

TEST_F(ADBTransportTest, signalsNeitherCutARequestNorAnAnswer) {
  struct sigaction interrupt{};  // without SA_RESTART: system calls give up
  interrupt.sa_handler = [](int) {};
  struct sigaction previous{};
  ::sigaction(SIGUSR1, &interrupt, &previous);

  const std::string request = "shell:" + std::string(2 << 20, 'x');
  SocketPair pair;
  std::thread server([&, client = ::pthread_self()] {
    const std::size_t size = 6 + request.size();  // six digits: the header only ever grows
    std::string received;
    while (received.size() < size) {
      const auto bytes =
          readUntilEnd(pair.server.get(), std::min<std::size_t>(1 << 18, size - received.size()));
      if (bytes.empty()) break;
      received += bytes;
      ::pthread_kill(client, SIGUSR1);
    }
    EXPECT_EQ(received.substr(0, 12), "200006shell:");
    EXPECT_TRUE(received.ends_with(request));
    for (const char byte : std::string_view("FAIL0006closed")) {
      ::pthread_kill(client, SIGUSR1);
      writePieces(pair.server.get(), {&byte, 1}, 1);
    }
  });
  EXPECT_EQ(ADBTransport::requestService(pair.client.get(), request).error(),
            ADBError::protocolFailure("closed"));
  server.join();
  ::sigaction(SIGUSR1, &previous, nullptr);
}

TEST_F(ADBTransportTest, namesTheServerThatItCouldNotReach) {
  Port refusing;
  const auto noServer = ADBError::serverUnreachable(fmt::format(
      "No adb server is listening on 127.0.0.1:{}. Start an Android emulator (Android Studio "
      "launches the adb server automatically), or run `adb start-server`.",
      refusing.number()));
  EXPECT_EQ(ADBTransport::devices(kLoopback, refusing.number()).error(), noServer);
  EXPECT_EQ(ADBTransport::connectLogcat("s", kLoopback, refusing.number(), "c").error(), noServer);
  EXPECT_EQ(ADBTransport::devices("no-such-host.invalid", 7).error().message(),
            "Couldn't reach the adb server at no-such-host.invalid:7 \u2014 check the address and "
            "that the server is running.");
}

TEST_F(ADBTransportTest, readsTheColumnsOfADeviceList) {
  const struct {
    std::string list;
    std::vector<Device> devices;
  } rows[] = {
      {"", {}},
      {"\n\r\n \t\nalone\n", {}},
      {"s device", {{"s", "device"}}},
      {"\ts \t offline usb:1-1 stray", {{"s", "offline"}}},
      {"s device model: product:a:b device::", {{"s", "device", "a:b", "", ":"}}},
      {"s device model:1 model:2 Model:3 :4", {{"s", "device", kNowhere, "2"}}},
      {"a x\nb x\rc x\r\nd x\ve x\ff x\u0085g x\u2028h x\u2029i x",
       {{"a", "x"},
        {"b", "x"},
        {"c", "x"},
        {"d", "x"},
        {"e", "x"},
        {"f", "x"},
        {"g", "x"},
        {"h", "x"},
        {"i", "x"}}},
      {"s\u00a0\u2003t device", {{"s\u00a0\u2003t", "device"}}},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(ADBTransport::parseDeviceList(row.list), row.devices) << row.list;
  }
}

TEST_F(ADBTransportTest, picksTheReadiestDevice) {
  const Device phone{"R58", "device"};
  const Device tablet{"R59", "device"};
  const Device emulator{"emulator-5554", "device"};
  const Device booting{"emulator-5556", "offline"};
  const Device locked{"R60", "unauthorized"};
  const struct {
    std::vector<Device> devices;
    std::optional<std::string> serial;
    std::optional<Device> target;
  } rows[] = {
      {{}, kNowhere, kNowhere},
      {{phone, emulator}, kNowhere, emulator},
      {{booting, phone, tablet}, "", phone},
      {{booting, locked}, kNowhere, booting},
      {{phone, locked}, "R60", locked},
      {{phone}, "r58", kNowhere},
      {{phone}, " R58", kNowhere},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(ADBTransport::pickTarget(row.devices, row.serial), row.target);
  }
}

TEST_F(ADBTransportTest, speaksToTheUser) {
  EXPECT_EQ(ADBError::protocolFailure("closed").message(), "adb protocol error: closed");
  EXPECT_EQ(ADBError::deviceNotReady("s", "offline").message(),
            "Device s is 'offline', not ready to stream. Wait for it to finish booting (state "
            "should be 'device').");
  EXPECT_EQ(ADBError::noDevices().message(),
            "No Android devices or emulators are attached. Start an AAOS emulator and try again.");
  EXPECT_EQ((Device{"s", "device", kNowhere, "M"}.displayName()), "M (s)");
  EXPECT_EQ((Device{"s", "device", kNowhere, ""}.displayName()), " (s)");
  EXPECT_EQ((Device{"s", "device", "p"}.displayName()), "s");
}

}  // namespace
}  // namespace runeflow
